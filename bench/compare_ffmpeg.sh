#!/usr/bin/env bash
# Frames per second of tremor-render with default settings against FFmpeg's
# tmix=frames=10 and tblend=all_mode=difference on one 1920x1080 clip, on this
# machine in one run: the median of REPEAT runs of each, and the ratios.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export POCL_CACHE_DIR=${POCL_CACHE_DIR:-$PWD/$build/pocl-cache}
mkdir -p "$POCL_CACHE_DIR"
frames=${FRAMES:-30}
repeat=${REPEAT:-3}
device=${DEVICE:-auto}

ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=s=1920x1080:r=25" -frames:v "$frames" \
  -c:v libx264 -pix_fmt yuv420p -crf 18 "$work/clip.mp4"

seconds() {  # wall seconds of a command, as a decimal
  local t0 t1
  t0=$(date +%s.%N)
  "$@" > /dev/null 2>&1
  t1=$(date +%s.%N)
  awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }'
}

median() {  # median seconds of `repeat` runs
  local i runs=()
  for ((i = 0; i < repeat; i++)); do runs+=("$(seconds "$@")"); done
  printf '%s\n' "${runs[@]}" | sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# Like with like: each decodes the same clip and writes H.264 mp4 (libx264 at
# its defaults for the filters, tremor-render's own mp4 settings).
t_render=$(median "$build/tremor-render" "$work/clip.mp4" -o "$work/out.mp4" --quiet --device "$device")
t_tmix=$(median ffmpeg -nostdin -v error -y -i "$work/clip.mp4" -vf tmix=frames=10 -c:v libx264 "$work/tmix.mp4")
t_tblend=$(median ffmpeg -nostdin -v error -y -i "$work/clip.mp4" -vf tblend=all_mode=difference -c:v libx264 \
  "$work/tblend.mp4")
device_name=$("$build/tremor-render" "$work/clip.mp4" -o "$work/one.mkv" --end 0 --device "$device" 2>&1 |
  sed -n 's/.* on \(.*\)$/\1/p' | tail -1)

fps() { awk -v n="$frames" -v t="$1" 'BEGIN { printf "%.2f", n / t }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.4f", a / b }'; }
f_render=$(fps "$t_render"); f_tmix=$(fps "$t_tmix"); f_tblend=$(fps "$t_tblend")
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
echo "clip: 1920x1080, $frames frames; medians of $repeat runs"
echo "tremor-render (default settings, $device_name): $f_render fps"
echo "ffmpeg tmix=frames=10:      $f_tmix fps   (tremor-render / tmix = $(ratio "$f_render" "$f_tmix"))"
echo "ffmpeg tblend difference:   $f_tblend fps   (tremor-render / tblend = $(ratio "$f_render" "$f_tblend"))"
