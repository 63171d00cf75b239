#!/usr/bin/env bash
# Every kernel path on Oclgrind's simulated device, with its memory checks (on
# always), API checks and data-race detection: small renders by tremor-render
# and the device scene tests (canvases, every mode, 16-bit frames). Any report
# fails the run. Usage: run.sh BUILD_DIR [GTEST_FILTER]
set -euo pipefail
build=$(cd "$1" && pwd)
filter=${2:-'DeviceRender.*/opencl*'}
work=$build/oclgrind
rm -rf "$work" && mkdir -p "$work" && cd "$work"
export POCL_CACHE_DIR=$build/pocl-cache TMPDIR=$work
checks=(--check-api --data-races)

# Runs a command on Oclgrind; its log must stay empty.
check() {
  local name=$1 extra=$2
  shift 2
  echo "oclgrind: $name"
  # shellcheck disable=SC2086  # extra checks, word by word
  if ! oclgrind "${checks[@]}" $extra --log "$name.log" "$@" >"$name.out" 2>&1 || [ -s "$name.log" ]; then
    cat "$name.out" "$name.log" >&2
    echo "oclgrind: $name reported" >&2
    exit 1
  fi
}

ffmpeg -nostdin -v error -f lavfi -i testsrc=size=24x16:rate=10 -frames:v 6 in8.%04d.png
ffmpeg -nostdin -v error -f lavfi -i testsrc=size=24x16:rate=10 -frames:v 6 -pix_fmt rgba64be in16.%04d.png
ffmpeg -nostdin -v error -f lavfi -i testsrc=size=24x16:rate=10 -frames:v 6 -pix_fmt gbrapf32le inf.%04d.exr
render=("$build/tremor-render" -q)
# The engine uploads its frames with writes Oclgrind follows: its values are
# checked too. Frames written through a mapped buffer look uninitialised to
# it whatever the host wrote, so the module paths go without (and Oclgrind 21.10
# crashes checking values on float frames and in the passes).
check stack-u8 --uninitialized "${render[@]}" in8.%04d.png -o a.%04d.exr --frames 3
check stack-u16 --uninitialized "${render[@]}" in16.%04d.png -o b.%04d.exr --frames 4 --frames-offset 1.5 \
  --blending-mode screen
check stack-float "" "${render[@]}" inf.%04d.exr -o c.%04d.exr --frames 6 --output luma --normalize
check passes "" "${render[@]}" in8.%04d.png -o d.%04d.exr --frames 3 --motion-amplification \
  --chromatic-aberration --difference-algorithm subtract
check aftereffects "" "${render[@]}" in8.%04d.png -o e.%04d.exr --host aftereffects --frames 4 --output source
check premiere-half "" "${render[@]}" in16.%04d.png -o f.%04d.exr --host premiere --precision half --frames 4 \
  --frames-offset 2 --motion-amplification --chromatic-aberration
check scenes "" "$build/tests/gpu/test_gpu" --gtest_filter="$filter"
echo "oclgrind: no reports"
