#!/usr/bin/env bash
# The frei0r filter inside hosts no one here wrote: FFmpeg's frei0r filter and
# MLT's melt render a clip with it, and each frame must equal tremor-render's
# render of the same clip and settings, rounded to 8 bits. Also: a melt render
# from an in point starts its history afresh (tremor-render on the cut clip),
# out-of-range values are clamped, and a device that cannot be opened is
# reported once while the frames pass through.
# Usage: frei0r_hosts.sh BUILD_DIR WORK_DIR
set -euo pipefail
build=$1
work=$2
rm -rf "$work" && mkdir -p "$work" && cd "$work"
export FREI0R_PATH=$build/frei0r-1
render=$build/tremor-render
fail() { echo "FAIL: $*" >&2; exit 1; }

# 8-bit R'G'B' frames, so that every program starts from the same values.
ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=s=96x64:r=25" -frames:v 14 -c:v ffv1 -pix_fmt bgr0 clip.mkv
ffmpeg -nostdin -v error -y -i clip.mkv -vf trim=start_frame=5 -c:v ffv1 -pix_fmt bgr0 cut.mkv

# Frames of a video as raw RGBA bytes, and tremor-render's as 16-bit RGBA.
rgba() { ffmpeg -nostdin -v error -y -i "$1" -f rawvideo -pix_fmt rgba "$2"; }
reference() {  # clip output.raw tremor-render-options...
  local clip=$1 out=$2
  shift 2
  rm -rf ref && mkdir ref
  "$render" "$clip" -o ref/f.%03d.png --quiet "$@"
  ffmpeg -nostdin -v error -y -i ref/f.%03d.png -f rawvideo -pix_fmt rgba64le "$out"
}
same() { python3 "$(dirname "$0")/../within_one_step.py" "$@"; }  # what 8-bit.raw 16-bit.raw

# Controls in the filter's order: Frames, Frames offset, Frames Fade, Blending
# mode, Difference algorithm, Motion Amplification, Chromatic Aberration,
# Normalize, Output; 0..1 each. 0.5075 is an offset of 1.5; blending 1 is Screen.
ffmpeg -nostdin -v error -y -i clip.mkv -vf frei0r=filter_name=tremor_distiller -f rawvideo -pix_fmt rgba ff.raw
melt -quiet clip.mkv -filter frei0r.tremor_distiller -consumer avformat:melt.mkv vcodec=ffv1 pix_fmt=bgr0 an=1
rgba melt.mkv melt.raw
reference clip.mkv ref.raw
same "ffmpeg, default settings" ff.raw ref.raw
same "melt, default settings" melt.raw ref.raw

ffmpeg -nostdin -v error -y -i clip.mkv -vf "frei0r=filter_name=tremor_distiller:filter_params=0.148937|0.5075|0.8|1" \
  -f rawvideo -pix_fmt rgba ff.raw
melt -quiet clip.mkv -filter frei0r.tremor_distiller 1=0.5075 3=1 \
  -consumer avformat:melt.mkv vcodec=ffv1 pix_fmt=bgr0 an=1
rgba melt.mkv melt.raw
reference clip.mkv ref.raw --frames-offset 1.5 --blending-mode screen
same "ffmpeg, offset 1.5, screen" ff.raw ref.raw
same "melt, offset 1.5, screen" melt.raw ref.raw

melt -quiet clip.mkv in=5 -filter frei0r.tremor_distiller -consumer avformat:melt.mkv vcodec=ffv1 pix_fmt=bgr0 an=1
rgba melt.mkv melt.raw
reference cut.mkv ref.raw
same "melt from frame 5" melt.raw ref.raw

# Out of range: Frames 7 is 50, Frames Fade -3 is 0, Output 9 is Luma (FFmpeg
# takes booleans as y or n).
ffmpeg -nostdin -v error -y -i clip.mkv \
  -vf "frei0r=filter_name=tremor_distiller:filter_params=7|0.505|-3|0|0|n|n|n|9" -f rawvideo -pix_fmt rgba ff.raw \
  2> clamped.txt
reference clip.mkv ref.raw --frames 50 --frames-fade 0 --output luma
same "clamped values" ff.raw ref.raw
printf '%s\n' 'tremor_distiller: Frames 7 is outside 0..1; 7 frames is 0.0851064' \
  'tremor_distiller: Frames Fade -3 is outside 0..1; it is clamped to 0' \
  'tremor_distiller: Output 9 is outside 0..1; it is clamped to 1' > expected.txt
diff expected.txt clamped.txt || fail "FFmpeg: out-of-range values not named as expected"
# melt sets every value before each frame: still one line a value.
melt -quiet clip.mkv -filter frei0r.tremor_distiller 0=20 8=2 -consumer avformat:melt.mkv vcodec=ffv1 an=1 2> clamped.txt
printf '%s\n' 'tremor_distiller: Frames 20 is outside 0..1; 20 frames is 0.361702' \
  'tremor_distiller: Output 2 is outside 0..1; Source is 0.5' > expected.txt
diff expected.txt <(grep tremor_distiller clamped.txt | sort) || fail "melt: out-of-range values not named once each"

TREMOR_DISTILLER_DEVICE=opencl:9.9 ffmpeg -nostdin -v error -y -i clip.mkv -vf frei0r=filter_name=tremor_distiller \
  -f rawvideo -pix_fmt rgba ff.raw 2> err.txt
rgba clip.mkv clip.raw
cmp -s ff.raw clip.raw || fail "frames from a device that cannot be opened were not passed through"
[ "$(grep -c 'tremor_distiller: cannot use the device' err.txt)" = 1 ] || fail "expected one device line, got: $(cat err.txt)"
echo "frei0r filter: FFmpeg and melt match tremor-render"
