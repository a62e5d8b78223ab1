#!/usr/bin/env bash
# A long run of the live wallpaper under AddressSanitizer and LeakSanitizer: two monitors on
# Xvfb under openbox, a playlist handing over every two seconds, the settings and the plan's
# playlist rewritten at random, a clip deleted while it plays (and put back), monitors removed
# and added, full-screen windows coming and going. Every minute it records the wallpaper's
# resident memory and open files; at the end it stops it and reports a crash or a leak.
# Usage: bench/wallpaper_soak.sh [MINUTES] (default 30)
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/soak_common.sh
minutes=${1:-30}
for tool in Xvfb xrandr openbox wmctrl xclock ffmpeg; do
  command -v "$tool" >/dev/null || { echo "wallpaper_soak: $tool is needed" >&2; exit 1; }
done
[ -x build/asan/src/korvalen ] || { cmake --preset asan >/dev/null && cmake --build --preset asan --target korvalen; }
korvalen=$PWD/build/asan/src/korvalen
work=$(mktemp -d)
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work/data" XDG_RUNTIME_DIR="$work/run" SDL_AUDIODRIVER=dummy DBUS_SESSION_BUS_ADDRESS=disabled:
export ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp"
mkdir -p "$work/run" && chmod 700 "$work/run"

exec 3< <(Xvfb -displayfd 1 -screen 0 1280x360x24 -nolisten tcp -noreset 2>/dev/null)
pids+=($!)
read -r display <&3
export DISPLAY=":$display"
xrandr --setmonitor LEFT 640/170x360/96+0+0 screen >/dev/null
xrandr --setmonitor RIGHT 640/170x360/96+640+0 none >/dev/null
openbox >/dev/null 2>&1 &
pids+=($!)
sleep 1

for colour in red green blue; do
  ffmpeg -v error -f lavfi -i "testsrc2=size=640x360:rate=30" -vf "drawbox=c=$colour:t=40" -t 5 -c:v libx264 \
    -pix_fmt yuv420p "$work/$colour.mp4"
done
"$korvalen" library add "$work/red.mp4" "$work/green.mp4" "$work/blue.mp4" >/dev/null
"$korvalen" settings set 'playlists=[{"name":"Mix","itemIDs":["1","2","3"],"intervalMinutes":1}]' \
  activePlaylist=Mix transitions.enabled=true transitions.seconds=1 >/dev/null

"$korvalen" wallpaper 2>"$work/wallpaper.log" &
wallpaper=$!
pids+=($wallpaper)
sleep 3
xclock -title soak >/dev/null 2>&1 &
pids+=($!)
library="$XDG_DATA_HOME/Korvalen/Library/items/2/green.mp4"

samples="$work/samples.txt"
end=$((SECONDS + minutes * 60))
next_sample=$SECONDS
step=0
while [ $SECONDS -lt $end ] && kill -0 "$wallpaper" 2>/dev/null; do
  step=$((step + 1))
  "$korvalen" wallpaper next >/dev/null 2>&1 || true
  case $((RANDOM % 8)) in
    0) "$korvalen" settings set "power.fpsCap=$((10 + RANDOM % 50))" >/dev/null 2>&1 || true ;;
    1) "$korvalen" settings set "transitions.defaultId=$(shuf -n1 -e crossBlend slideLeft wipeDown zoomIn fadeThroughBlack)" >/dev/null 2>&1 || true ;;
    2) wmctrl -r soak -b toggle,fullscreen 2>/dev/null || true ;;
    3) xrandr --delmonitor RIGHT >/dev/null 2>&1 || true; sleep 0.5; xrandr --setmonitor RIGHT 640/170x360/96+640+0 none >/dev/null 2>&1 || true ;;
    4) if [ -n "$library" ] && [ -f "$library" ]; then mv "$library" "$library.away"; sleep 1; mv "$library.away" "$library"; fi ;;
    5) "$korvalen" wallpaper pause >/dev/null 2>&1 || true; sleep 0.5; "$korvalen" wallpaper resume >/dev/null 2>&1 || true ;;
    6) "$korvalen" settings set "accessibility.dim=0.$((RANDOM % 9))" >/dev/null 2>&1 || true ;;
    7) "$korvalen" wallpaper reload >/dev/null 2>&1 || true ;;
  esac
  soak_sample
  sleep 2
done
soak_finish wallpaper_soak
