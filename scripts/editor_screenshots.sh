#!/usr/bin/env bash
# Screenshots of the effect's panel in Kdenlive and Shotcut, each run under
# Xvfb with a home of its own: installs the editors and the effect (root),
# opens a generated clip, applies the effect as a user would (xdotool) and
# writes docs/kdenlive-panel.png and docs/shotcut-panel.png. The clicks are
# at fixed places of Debian 12's Kdenlive 22.12 and Shotcut 22.12 on a
# 1600x1000 screen; kept out of CI, which has no editors.
# Usage: scripts/editor_screenshots.sh [BUILD_DIR]
set -euo pipefail
build=$(realpath "${1:-build}")
cd "$(dirname "$0")/.."
docs=$PWD/docs
if [ "$(id -u)" -ne 0 ]; then echo "editor_screenshots.sh: run as root (it installs the editors)" >&2; exit 2; fi
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends kdenlive shotcut xvfb xdotool \
  imagemagick dbus > /dev/null
cmake --install "$build" > /dev/null

work=$(mktemp -d)
display=:57
Xvfb $display -screen 0 1600x1000x24 -nolisten tcp > "$work/xvfb.log" 2>&1 &
xvfb=$!
trap 'kill $xvfb 2>/dev/null; [ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
export DISPLAY=$display POCL_CACHE_DIR=${POCL_CACHE_DIR:-$build/pocl-cache}
ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=s=640x360:r=25" -frames:v 40 -c:v libx264 -pix_fmt yuv420p \
  "$work/clip.mp4"

# An editor in a session and home of its own, in the background.
start() {  # name command...
  local home=$work/$1
  shift
  mkdir -p "$home/run" && chmod 700 "$home/run"
  HOME=$home XDG_RUNTIME_DIR=$home/run dbus-run-session -- "$@" > "$home.log" 2>&1 &
  echo $!
}
click() { xdotool mousemove "$1" "$2" click --repeat "${3:-1}" --delay 150 1; sleep "${4:-1}"; }
shot() {  # file width height: the top left of the screen
  import -window root -crop "$2x$3+0+0" "$work/shot.png"
  convert "$work/shot.png" -strip -colors 128 "PNG8:$1"
}

# Kdenlive: the test's project (the effect on the clip of track V1), opened
# at frame 20, the clip selected to show its effects. Kdenlive 22.12 under
# Xvfb crashes in its own code as soon as the playhead moves or an effect is
# added from the list (with any effect), so the effect comes in the project.
sed -e "s|@ROOT@|$work|; s|clip.mkv|clip.mp4|; s|width=\"96\" height=\"64\"|width=\"640\" height=\"360\"|" \
  -e 's|display_aspect_num="3"|display_aspect_num="16"|; s|display_aspect_den="2"|display_aspect_den="9"|' \
  -e 's|^\( *\)<property name="xml_retain">1</property>|&\n\1<property name="kdenlive:docproperties.position">20</property>|' \
  tests/mlt/project.kdenlive > "$work/project.kdenlive"
editor=$(start kdenlive kdenlive "$work/project.kdenlive")
xdotool search --sync --name 'Kdenlive$' > /dev/null
sleep 15
click 188 553 1 8  # the clip on V1
shot "$docs/kdenlive-panel.png" 1050 770
kill "$editor"

# Shotcut: the clip in the source player, its Filters panel, "+", "tremor"
# typed in the search, the filter clicked.
editor=$(start shotcut shotcut "$work/clip.mp4")
xdotool search --sync --name 'Shotcut$' > /dev/null
sleep 15
click 103 396      # the Filters tab
click 21 368 1 3   # "+"
click 290 148      # the search field
xdotool type --delay 60 tremor
sleep 2
click 107 207 1 8  # "Tremor Distiller"
shot "$docs/shotcut-panel.png" 1280 690
kill "$editor"
