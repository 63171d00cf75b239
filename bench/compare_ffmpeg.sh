#!/usr/bin/env bash
# Frames per second of tremor-render with default settings against FFmpeg's
# tmix=frames=10 and tblend=all_mode=difference on one 1920x1080 clip, on this
# machine in one run: the median of REPEAT runs of each, and the ratios. Then
# the effect alone against tmix, both to FFmpeg's null sink: tremor-render's
# -f null, and the frei0r filter inside FFmpeg.
set -euo pipefail
build=$(realpath "${1:-build}")
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export POCL_CACHE_DIR=${POCL_CACHE_DIR:-$build/pocl-cache}
mkdir -p "$POCL_CACHE_DIR"
frames=${FRAMES:-30}
repeat=${REPEAT:-3}
device=${DEVICE:-auto}

ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=s=1920x1080:r=25" -frames:v "$frames" \
  -c:v libx264 -pix_fmt yuv420p -crf 18 "$work/clip.mp4"

source "$(dirname "$0")/timing.sh"

# Like with like: each decodes the same clip and writes H.264 mp4 (libx264 at
# its defaults for the filters, tremor-render's own mp4 settings).
read -r t_render c_render < <(median "$build/tremor-render" "$work/clip.mp4" -o "$work/out.mp4" -y --quiet --device "$device")
read -r t_tmix c_tmix < <(median ffmpeg -nostdin -v error -y -i "$work/clip.mp4" -vf tmix=frames=10 -c:v libx264 \
  "$work/tmix.mp4")
read -r t_tblend c_tblend < <(median ffmpeg -nostdin -v error -y -i "$work/clip.mp4" -vf tblend=all_mode=difference \
  -c:v libx264 "$work/tblend.mp4")
# The effect alone: no encoder on either side.
read -r t_null c_null < <(median "$build/tremor-render" "$work/clip.mp4" -f null - --quiet --device "$device")
read -r t_tmixnull c_tmixnull < <(median ffmpeg -nostdin -v error -y -i "$work/clip.mp4" -vf tmix=frames=10 -f null -)
t_frei0r=""
if [ -e "$build/frei0r-1/tremor_distiller.so" ]; then
  read -r t_frei0r c_frei0r < <(median env FREI0R_PATH="$build/frei0r-1" TREMOR_DISTILLER_DEVICE="$device" \
    ffmpeg -nostdin -v error -y -i "$work/clip.mp4" -vf frei0r=tremor_distiller -f null -)
fi
device_name=$("$build/tremor-render" "$work/clip.mp4" -o "$work/one.mkv" --end 0 --device "$device" 2>&1 |
  sed -n 's/.* on \(.*\)$/\1/p' | tail -1)

fps() { awk -v n="$frames" -v t="$1" 'BEGIN { printf "%.2f", n / t }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.4f", a / b }'; }
f_render=$(fps "$t_render"); f_tmix=$(fps "$t_tmix"); f_tblend=$(fps "$t_tblend")
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
echo "clip: 1920x1080, $frames frames; medians of $repeat runs"
cpu() { awk -v n="$frames" -v t="$1" 'BEGIN { printf "%.1f", 1000 * t / n }'; }
echo "tremor-render (default settings, $device_name): $f_render fps, $(cpu "$c_render") CPU ms a frame"
echo "ffmpeg tmix=frames=10:      $f_tmix fps, $(cpu "$c_tmix") CPU ms a frame   (tremor-render / tmix:" \
  "$(ratio "$f_render" "$f_tmix") in fps, $(ratio "$c_tmix" "$c_render") in CPU)"
echo "ffmpeg tblend difference:   $f_tblend fps, $(cpu "$c_tblend") CPU ms a frame   (tremor-render / tblend:" \
  "$(ratio "$f_render" "$f_tblend") in fps, $(ratio "$c_tblend" "$c_render") in CPU)"
f_null=$(fps "$t_null"); f_tmixnull=$(fps "$t_tmixnull")
echo "to the null sink:"
echo "tremor-render -f null -:     $f_null fps, $(cpu "$c_null") CPU ms a frame   (/ tmix: $(ratio "$f_null" "$f_tmixnull") in fps)"
echo "ffmpeg tmix=frames=10:       $f_tmixnull fps, $(cpu "$c_tmixnull") CPU ms a frame"
if [ -n "$t_frei0r" ]; then
  f_frei0r=$(fps "$t_frei0r")
  echo "ffmpeg frei0r=tremor_distiller: $f_frei0r fps, $(cpu "$c_frei0r") CPU ms a frame   (/ tmix: $(ratio "$f_frei0r" "$f_tmixnull") in fps)"
fi
