#!/usr/bin/env bash
# Installs the Debian packages the build and tests need; `install-deps.sh demo`
# only those of `make demo` (the renderer, the module and the frei0r filter,
# built and run on PoCL). As root it installs what is missing; otherwise it
# prints the apt line to run and fails.
set -euo pipefail

packages=(
  build-essential cmake make pkg-config
  ocl-icd-opencl-dev opencl-headers pocl-opencl-icd
  libstb-dev
  ffmpeg libavformat-dev libavcodec-dev libswscale-dev libswresample-dev libavutil-dev
  libcli11-dev
  frei0r-plugins-dev
  libfreetype-dev fonts-dejavu-core
)
if [ "${1:-all}" != demo ]; then
  packages+=(
    python3 python3-distributed help2man dpkg-dev
    libgtest-dev libgmock-dev libbenchmark-dev clinfo oclgrind melt libmlt-dev libmlt++-dev
    clang libclang-rt-14-dev
    g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 libwine
  )
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages; run as root:" >&2
  echo "  apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi

echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
