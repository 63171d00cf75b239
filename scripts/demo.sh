#!/usr/bin/env bash
# Makes a short clip with motion over a still background, renders it with the
# default settings, and puts input and output side by side at a few times.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."
mkdir -p demo
export POCL_CACHE_DIR=${POCL_CACHE_DIR:-$PWD/$build/pocl-cache}
mkdir -p "$POCL_CACHE_DIR"

sample=demo/sample.mp4
out=demo/motion.mp4
sheet=demo/contact-sheet.png

# A still grid and ground, a square swinging across it and a bar sliding down.
# The moving parts are overlays: drawbox evaluates its position only once.
ffmpeg -v error -y -f lavfi -i "\
color=c=0x1b2533:s=480x270:r=25:d=4,format=rgb24,drawgrid=w=40:h=40:t=1:c=0x3a4a60,\
drawbox=x=0:y=230:w=480:h=40:c=0x2d3d2d:t=fill[bg];\
color=c=0xf0c040:s=36x36:r=25[square];color=c=0x40c0f0:s=90x10:r=25[bar];\
[bg][square]overlay=x='222+180*sin(2*t)':y='117+60*cos(3*t)':eval=frame:shortest=1[a];\
[a][bar]overlay=x=60:y='mod(70*t,270)':eval=frame:shortest=1,format=yuv420p" \
  -c:v libx264 -crf 16 "$sample"

"$build/tremor-render" "$sample" -o "$out" -y

# Three moments, input left and output right.
ffmpeg -v error -y -i "$sample" -i "$out" -filter_complex \
  "[0:v]select='eq(n,25)+eq(n,50)+eq(n,75)',setpts=N/TB[a];[1:v]select='eq(n,25)+eq(n,50)+eq(n,75)',setpts=N/TB[b];[a][b]hstack,tile=1x3" \
  -frames:v 1 "$sheet"

echo "video:         $PWD/$out"
echo "contact sheet: $PWD/$sheet"
