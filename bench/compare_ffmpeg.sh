#!/usr/bin/env bash
# Frames per second of tremor-render with default settings against FFmpeg's
# tmix=frames=10 and tblend=all_mode=difference on one 1920x1080 clip, on this
# machine in one run. Prints the figures and the ratios.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export POCL_CACHE_DIR=${POCL_CACHE_DIR:-$PWD/$build/pocl-cache}
frames=${FRAMES:-60}

ffmpeg -v error -y -f lavfi -i "testsrc2=s=1920x1080:r=25" -frames:v "$frames" -c:v libx264 -pix_fmt yuv420p -crf 18 "$work/clip.mp4"

seconds() {  # wall seconds of a command, as a decimal
  local t0 t1
  t0=$(date +%s.%N)
  "$@" > /dev/null 2>&1
  t1=$(date +%s.%N)
  awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }'
}

t_render=$(seconds "$build/tremor-render" "$work/clip.mp4" -o "$work/out.mkv" --quiet)
t_tmix=$(seconds ffmpeg -v error -i "$work/clip.mp4" -vf tmix=frames=10 -f null -)
t_tblend=$(seconds ffmpeg -v error -i "$work/clip.mp4" -vf tblend=all_mode=difference -f null -)

fps() { awk -v n="$frames" -v t="$1" 'BEGIN { printf "%.2f", n / t }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a / b }'; }
f_render=$(fps "$t_render"); f_tmix=$(fps "$t_tmix"); f_tblend=$(fps "$t_tblend")
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
echo "tremor-render (default settings): $f_render fps"
echo "ffmpeg tmix=frames=10:           $f_tmix fps   (tremor-render / tmix = $(ratio "$f_render" "$f_tmix"))"
echo "ffmpeg tblend difference:         $f_tblend fps   (tremor-render / tblend = $(ratio "$f_render" "$f_tblend"))"
