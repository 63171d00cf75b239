#!/usr/bin/env bash
# The MLT service against MLT's tmix (avfilter.tmix, which Shotcut offers as
# Trails) in melt, on one 1920x1080 clip, on this machine in one run: the
# median of REPEAT runs of each, frames per second and their ratio. Both
# render with the profile of the clip to the null muxer (no encoder), one
# render thread (real_time=-1); melt alone on the clip is timed too, and the
# service once more with two render threads (real_time=-2).
set -euo pipefail
build=$(realpath "${1:-build}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export POCL_CACHE_DIR=${POCL_CACHE_DIR:-$build/pocl-cache}
mkdir -p "$POCL_CACHE_DIR" "$work/repo" "$work/data"
frames=${FRAMES:-60}
repeat=${REPEAT:-3}
# MLT reads modules and data from one folder each: the system's beside ours.
# An installed copy of ours stays out.
for f in "$(pkg-config --variable=moduledir mlt-framework-7)"/*.so; do
  [[ $f == */libmlttremordistiller.so ]] || ln -s "$f" "$work/repo/"
done
for f in "$(pkg-config --variable=mltdatadir mlt-framework-7)"/*; do
  [[ $f == */tremordistiller ]] || ln -s "$f" "$work/data/"
done
ln -s "$build/mlt/libmlttremordistiller.so" "$work/repo/"
ln -s "$build/mlt/data/tremordistiller" "$work/data/"
export MLT_REPOSITORY=$work/repo MLT_DATA=$work/data

ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=s=1920x1080:r=25" -frames:v "$frames" \
  -c:v libx264 -pix_fmt yuv420p -crf 18 "$work/clip.mp4"

source "$(dirname "$0")/timing.sh"
melt_run() {  # real_time filter-arguments...
  local rt=$1
  shift
  melt -quiet -profile atsc_1080p_25 "$work/clip.mp4" "$@" -consumer avformat:/dev/null f=null vcodec=rawvideo an=1 \
    real_time="$rt" < /dev/null
}

read -r t_ours c_ours < <(median melt_run -1 -filter tremor_distiller)
read -r t_tmix c_tmix < <(median melt_run -1 -filter avfilter.tmix av.frames=10)
read -r t_bare c_bare < <(median melt_run -1)
read -r t_two c_two < <(median melt_run -2 -filter tremor_distiller)

fps() { awk -v n="$frames" -v t="$1" 'BEGIN { printf "%.2f", n / t }'; }
cpu() { awk -v n="$frames" -v t="$1" 'BEGIN { printf "%.1f", 1000 * t / n }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
echo "clip: 1920x1080 H.264, $frames frames; melt to the null muxer; medians of $repeat runs"
echo "melt, no filter:                  $(fps "$t_bare") fps, $(cpu "$c_bare") CPU ms a frame"
echo "melt tremor_distiller (defaults): $(fps "$t_ours") fps, $(cpu "$c_ours") CPU ms a frame"
echo "melt avfilter.tmix av.frames=10:  $(fps "$t_tmix") fps, $(cpu "$c_tmix") CPU ms a frame"
echo "tremor_distiller / tmix: $(ratio "$t_tmix" "$t_ours") in fps, $(ratio "$c_tmix" "$c_ours") in CPU"
echo "tremor_distiller, real_time=-2:   $(fps "$t_two") fps (/ tmix: $(ratio "$t_tmix" "$t_two"))"
