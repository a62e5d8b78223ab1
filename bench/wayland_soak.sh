#!/usr/bin/env bash
# A long run of the Wayland wallpaper under AddressSanitizer and LeakSanitizer on a sway
# inside a headless sway (both as nobody when run as root; the inner one's outputs are windows
# of the outer one, so they can be unplugged, which a headless output cannot): a playlist
# handing over every two seconds, settings rewritten at random, a clip deleted while it plays
# (and put back), outputs plugged in, unplugged and rescaled, a full-screen window coming and
# going. Every minute it records resident memory and open files; at the end it reports a
# crash or a leak.
# Usage: bench/wayland_soak.sh [MINUTES] (default 30)
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/soak_common.sh
minutes=${1:-30}
for tool in sway swaymsg foot ffmpeg setpriv; do
  command -v "$tool" >/dev/null || { echo "wayland_soak: $tool is needed" >&2; exit 1; }
done
[ -x build/asan/src/korvalen ] || { cmake --preset asan >/dev/null && cmake --build --preset asan --target korvalen; }
korvalen=$PWD/build/asan/src/korvalen
work=$(mktemp -d)
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work/data" XDG_RUNTIME_DIR="$work/run" SDL_AUDIODRIVER=dummy DBUS_SESSION_BUS_ADDRESS=disabled:
export ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp"
mkdir -p "$work/run" && chmod 700 "$work/run"
source bench/headless_sway.sh
start_headless_sway "$work" "$(printf 'output HEADLESS-1 resolution 1280x720\ndefault_border none')"
pids+=("$compositor")
outer=$WAYLAND_DISPLAY
outersock=$swaysock
mkdir -p "$work/inner-run" "$work/inner-home"
chmod 700 "$work/inner-run"
printf 'default_border none\n' >"$work/inner.config"
chmod 644 "$work/inner.config"
as_user=()
if [ "$(id -u)" = 0 ]; then
  chown nobody:nogroup "$work/inner-run" "$work/inner-home"
  as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
fi
"${as_user[@]}" env -i HOME="$work/inner-home" XDG_RUNTIME_DIR="$work/inner-run" WAYLAND_DISPLAY="$outer" \
  WLR_BACKENDS=wayland WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman PATH=/usr/bin:/bin \
  sway -c "$work/inner.config" >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 50); do
  ls "$work/inner-run"/wayland-? "$work/inner-run"/sway-ipc.*.sock >/dev/null 2>&1 && break
  sleep 0.1
done
WAYLAND_DISPLAY=$(ls "$work/inner-run"/wayland-? | head -1)
swaysock=$(ls "$work/inner-run"/sway-ipc.*.sock | head -1)
sway() { swaymsg -s "$swaysock" "$@" >/dev/null 2>&1 || true; }
sway create_output
plugged=(WL-1 WL-2)
made=2

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
sway exec "foot --app-id=soak sleep 100000"
library="$XDG_DATA_HOME/Korvalen/Library/items/2/green.mp4"

samples="$work/samples.txt"
end=$((SECONDS + minutes * 60))
next_sample=$SECONDS
step=0
outputs=2
while [ $SECONDS -lt $end ] && kill -0 "$wallpaper" 2>/dev/null; do
  step=$((step + 1))
  "$korvalen" wallpaper next >/dev/null 2>&1 || true
  case $((RANDOM % 8)) in
    0) "$korvalen" settings set "power.fpsCap=$((10 + RANDOM % 50))" >/dev/null 2>&1 || true ;;
    1) "$korvalen" settings set "transitions.defaultId=$(shuf -n1 -e crossBlend slideLeft wipeDown zoomIn fadeThroughBlack)" >/dev/null 2>&1 || true ;;
    2) sway '[app_id=soak]' fullscreen toggle ;;
    3) # Plug one in, rescale one, or unplug the newest (its window in the outer sway closed).
       case $((RANDOM % 3)) in
         0) if [ ${#plugged[@]} -lt 4 ]; then sway create_output; made=$((made + 1)); plugged+=("WL-$made"); fi ;;
         1) sway output "${plugged[-1]}" scale "$(shuf -n1 -e 1 1.5 2)" ;;
         2) if [ ${#plugged[@]} -gt 1 ]; then
              swaymsg -s "$outersock" "[title=\"wlroots - ${plugged[-1]}\"] kill" >/dev/null 2>&1 || true
              unset 'plugged[-1]'
            fi ;;
       esac
       outputs=${#plugged[@]} ;;
    4) if [ -f "$library" ]; then mv "$library" "$library.away"; sleep 1; mv "$library.away" "$library"; fi ;;
    5) "$korvalen" wallpaper pause >/dev/null 2>&1 || true; sleep 0.5; "$korvalen" wallpaper resume >/dev/null 2>&1 || true ;;
    6) "$korvalen" settings set "accessibility.dim=0.$((RANDOM % 9))" >/dev/null 2>&1 || true ;;
    7) "$korvalen" wallpaper reload >/dev/null 2>&1 || true ;;
  esac
  soak_sample "outputs ${outputs}"
  sleep 2
done
soak_finish wayland_soak
