#!/usr/bin/env bash
# Installs the built package on a fresh Debian 12 root made by debootstrap (as
# root, with a Debian mirror in reach) and renders there as a user would:
# tremor-render, tremor-farm against a whole render, the frei0r filter in
# FFmpeg; then lists the man pages and completion it brought.
set -euo pipefail
deb=$(realpath "${1:?usage: scripts/check-package.sh build-package/tremor-distiller_VERSION_ARCH.deb [ROOT]}")
root=${2:-/var/tmp/tremor-package-root}
[ -d "$root/usr" ] || debootstrap --variant=minbase bookworm "$root"
mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
for m in sys dev; do mountpoint -q "$root/$m" || mount --rbind "/$m" "$root/$m"; done
trap 'umount -R "$root/dev" "$root/sys" "$root/proc" 2>/dev/null || true' EXIT
cp /etc/resolv.conf "$root/etc/"
cp "$deb" "$root/tmp/"
chroot "$root" apt-get update -qq
chroot "$root" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "/tmp/${deb##*/}"

chroot "$root" env HOME=/tmp bash -euo pipefail -c '
cd "$(mktemp -d)"
ffmpeg -v error -f lavfi -i testsrc2=s=320x180:r=25:d=2 -f lavfi -i sine=d=2 -c:v libx264 -pix_fmt yuv420p \
  -c:a aac -shortest clip.mp4
tremor-render --list-devices
tremor-render clip.mp4 -o motion.mp4
tremor-render clip.mp4 -o whole.mkv -q
tremor-farm clip.mp4 -o farm.mkv --chunk-frames 16 --workers 2
cmp <(ffmpeg -v error -i whole.mkv -f framemd5 -) <(ffmpeg -v error -i farm.mkv -f framemd5 -)
echo "tremor-farm: the whole render frame for frame, audio included"
ffmpeg -v error -i clip.mp4 -map 0:v -vf frei0r=tremor_distiller -f framemd5 - | grep -v "^#" > filtered
ffmpeg -v error -i clip.mp4 -map 0:v -f framemd5 - | grep -v "^#" > plain
echo "frei0r filter: $(diff filtered plain | grep -c "^<") of $(wc -l < plain) frames changed"
ls /usr/share/man/man1/tremor-* /usr/share/bash-completion/completions/tremor-* /usr/share/doc/tremor-distiller/
'
