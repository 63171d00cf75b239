#!/usr/bin/env bash
# Installs the Debian packages the build and tests need. As root it installs what is
# missing; otherwise it prints the apt line to run and fails.
set -euo pipefail

packages=(
  build-essential cmake make pkg-config python3
  libgtest-dev libgmock-dev libbenchmark-dev
  ocl-icd-opencl-dev opencl-headers pocl-opencl-icd clinfo oclgrind
  libstb-dev
  ffmpeg libavformat-dev libavcodec-dev libswscale-dev libavutil-dev
  libcli11-dev
  frei0r-plugins-dev melt
  libfreetype-dev fonts-dejavu-core
  clang libclang-rt-14-dev
  g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 libwine
)

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
