#!/usr/bin/env bash
# The MLT service in melt against tremor-render: renders started at several
# frames (a playhead after a seek) equal tremor-render's frames of the same
# clip and settings within one 8-bit step; a render on two threads
# (real_time=-2) equals the one-thread render byte for byte; a Kdenlive
# project using the effect renders to the same frames.
# Usage: mlt_service.sh SOURCE_DIR BUILD_DIR WORK_DIR
set -euo pipefail
src=$1 build=$2 work=$3
rm -rf "$work" && mkdir -p "$work/repo" "$work/data" && cd "$work"
fail() { echo "FAIL: $*" >&2; exit 1; }

# MLT reads modules and data from one folder each: the system's beside ours.
# An installed copy of ours stays out.
for f in "$(pkg-config --variable=moduledir mlt-framework-7)"/*.so; do
  [[ $f == */libmlttremordistiller.so ]] || ln -s "$f" repo/
done
for f in "$(pkg-config --variable=mltdatadir mlt-framework-7)"/*; do [[ $f == */tremordistiller ]] || ln -s "$f" data/; done
ln -s "$build/mlt/libmlttremordistiller.so" repo/
ln -s "$build/mlt/data/tremordistiller" data/
export MLT_REPOSITORY=$work/repo MLT_DATA=$work/data
melt -query filter=tremor_distiller 2>/dev/null | grep -q 'identifier: frames_offset' || fail "no metadata for the service"

# 8-bit R'G'B' frames, so that both programs start from the same values, and
# a profile of the clip's own (melt's default would scale it; melt 7.12 crashes on a
# profile without a description).
ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=s=96x64:r=25" -frames:v 40 -c:v ffv1 -pix_fmt bgr0 clip.mkv
printf '%s\n' 'description=96x64 25 fps' width=96 height=64 frame_rate_num=25 frame_rate_den=1 progressive=1 sample_aspect_num=1 \
  sample_aspect_den=1 display_aspect_num=3 display_aspect_den=2 colorspace=601 > profile

rgba() { ffmpeg -nostdin -v error -y -i "$1" -f rawvideo -pix_fmt rgba "$2"; }
melt_render() {  # output.raw melt-arguments...
  local out=$1
  shift
  melt -quiet -profile profile "$@" -consumer avformat:melt.mkv vcodec=ffv1 pix_fmt=bgr0 an=1
  rgba melt.mkv "$out"
}
reference() {  # first-frame output.raw tremor-render-options...: frames first.. as 16-bit RGBA
  local first=$1 out=$2
  shift 2
  rm -rf ref && mkdir ref
  "$build/tremor-render" clip.mkv -o ref/f.%03d.png --quiet "$@"
  ffmpeg -nostdin -v error -y -start_number "$first" -i ref/f.%03d.png -f rawvideo -pix_fmt rgba64le "$out"
}
same() { python3 "$(dirname "$0")/../within_one_step.py" "$@"; }  # what 8-bit.raw 16-bit.raw
rgba clip.mkv clip.raw
# melt drops a service it cannot load without a word: the picture must change.
changed() { cmp -s "$1" clip.raw && fail "$2: the picture is the clip's own"; true; }

settings=(frames=12 frames_offset=1.5 frames_fade=60 blending_mode=screen)
options=(--frames 12 --frames-offset 1.5 --frames-fade 60 --blending-mode screen)
for start in 0 5 17 31; do
  reference "$start" ref.raw "${options[@]}"
  melt_render melt.raw clip.mkv in="$start" -filter tremor_distiller "${settings[@]}"
  changed melt.raw "from frame $start"
  same "melt from frame $start" melt.raw ref.raw
done

melt_render one.raw clip.mkv -filter tremor_distiller output=luma difference_algorithm=subtract real_time=-1
melt_render two.raw clip.mkv -filter tremor_distiller output=luma difference_algorithm=subtract real_time=-2
changed one.raw "luma"
cmp -s one.raw two.raw || fail "real_time=-2 renders differ from real_time=-1"
reference 0 ref.raw --output luma --difference-algorithm subtract
same "luma, subtract" one.raw ref.raw

sed "s|@ROOT@|$work|" "$src/tests/mlt/project.kdenlive" > project.kdenlive
melt_render kdenlive.raw project.kdenlive
reference 0 ref.raw --frames 12 --frames-offset 1.5 --frames-fade 60 --output source --normalize
changed kdenlive.raw "the Kdenlive project"
same "the Kdenlive project" kdenlive.raw ref.raw
echo "MLT service: melt matches tremor-render"
