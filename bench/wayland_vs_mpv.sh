#!/usr/bin/env bash
# The live wallpaper's cost on Wayland, side by side in one run on a headless sway (pixman,
# one 1920x1080 output) with the same 1080p30 clip: `korvalen wallpaper` on the background
# layer against `mpv --vo=wlshm --hwdec=no` in an ordinary window filling the output (and,
# for reference, full screen), as CPU (the program's, every thread, plus sway's). Goal: the ratio no more than the X11 wallpaper's to
# mpv on Xvfb (bench/wallpaper_vs_mpv.sh).
# Usage: bench/wayland_vs_mpv.sh [SECONDS]   (as root, sway runs as nobody)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
source bench/cpu_time.sh
source bench/headless_sway.sh
korvalen=$(readlink -f "$(release_korvalen)")
for tool in sway swaymsg mpv ffmpeg bc setpriv; do
  command -v "$tool" >/dev/null || { echo "wayland_vs_mpv: $tool is needed" >&2; exit 1; }
done

work=$(mktemp -d)
compositor=""
player=""
trap '[ -n "$player" ] && kill "$player" 2>/dev/null; [ -n "$compositor" ] && kill "$compositor" 2>/dev/null; rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work/data" XDG_RUNTIME_DIR="$work/run" SDL_AUDIODRIVER=dummy DBUS_SESSION_BUS_ADDRESS=disabled:
mkdir -p "$work/run" && chmod 700 "$work/run"

clip="$work/clip.mp4"
ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -t 60 -c:v libx264 -preset veryfast -pix_fmt yuv420p "$clip"
chmod 644 "$clip"
"$korvalen" library add "$clip" >/dev/null
"$korvalen" settings set 'playlists=[{"name":"One","itemIDs":["1"],"intervalMinutes":600}]' activePlaylist=One \
  accessibility.flashGuard=false >/dev/null

used() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)

start_sway() { start_headless_sway "$work" "$(printf 'output HEADLESS-1 resolution 1920x1080\ndefault_border none')"; }
stop_sway() { stop_headless_sway; }

# Starts "$@" (or, with SWAY_EXEC, has sway start it as its own user), waits 3 s, then
# measures SECONDS of CPU: program + compositor.
measure() {
  if [ -n "${SWAY_EXEC:-}" ]; then
    swaymsg -s "$swaysock" exec "$*" >/dev/null
    sleep 1
    player=$(pgrep -n -f "^$1") || { echo "wayland_vs_mpv: $1 did not start" >&2; exit 1; }
  else
    "$@" >/dev/null 2>"$work/last.log" &
    player=$!
  fi
  sleep 3
  local p0 s0 p1 s1
  p0=$(used "$player"); s0=$(used "$compositor")
  sleep "$seconds"
  p1=$(used "$player"); s1=$(used "$compositor")
  kill "$player" 2>/dev/null; wait "$player" 2>/dev/null || true
  player=""
  echo "$(echo "($p1 - $p0) / $hz" | bc -l) $(echo "($s1 - $s0) / $hz" | bc -l)"
}

# Both must show every frame for the CPU to compare: mpv says how many it dropped when it
# quits, the wallpaper its frames per second while it plays.
mkdir -m 777 "$work/mpv"
cat >"$work/mpv/frames.lua" <<LUA
-- Read while it plays: at shutdown the properties are gone.
mp.add_periodic_timer(1, function()
  local f = io.open("$work/mpv/frames.txt", "w")
  f:write(string.format("%d %d %.1f", mp.get_property_number("estimated-frame-number", 0),
    mp.get_property_number("frame-drop-count", 0) + mp.get_property_number("vo-drop-frame-count", 0),
    mp.get_property_number("estimated-vf-fps", 0)))
  f:close()
end)
LUA
chmod 644 "$work/mpv/frames.lua"
# mpv in an ordinary window filling the output, which sway composes as it composes a
# wallpaper; and full screen, which sway 1.7 hands to the output without composing (direct
# scan-out), something no wallpaper can have: shown for reference.
start_sway
read -r mpv_cpu mpv_c < <(SWAY_EXEC=1 measure mpv --no-config --vo=wlshm --hwdec=no --ao=null --loop=inf \
  --script="$work/mpv/frames.lua" "$clip")
stop_sway
start_sway
read -r fs_cpu fs_c < <(SWAY_EXEC=1 measure mpv --no-config --vo=wlshm --hwdec=no --ao=null --fs --loop=inf "$clip")
stop_sway
start_sway
( sleep $((3 + seconds / 2)); "$korvalen" wallpaper status >"$work/status.txt" 2>&1 ) &
read -r wp_cpu wp_c < <(measure "$korvalen" wallpaper)
stop_sway

ratio() { echo "($1) / ($2)" | bc -l | xargs printf '%.2f'; }
printf '1080p30 on a headless sway at 1920x1080 for %s s (CPU s: program + compositor):\n' "$seconds"
printf '  mpv --vo=wlshm --hwdec=no   %6.2f + sway %6.2f   (a window filling the output)\n' "$mpv_cpu" "$mpv_c"
printf '  mpv ... --fs                %6.2f + sway %6.2f   (full screen: scanned out, not composed)\n' "$fs_cpu" "$fs_c"
printf '  korvalen wallpaper          %6.2f + sway %6.2f\n' "$wp_cpu" "$wp_c"
printf '  mpv dropped %s of %s frames (%s frames/s); the wallpaper showed %s\n' \
  "$(cut -d' ' -f2 "$work/mpv/frames.txt" 2>/dev/null || echo '?')" \
  "$(cut -d' ' -f1 "$work/mpv/frames.txt" 2>/dev/null || echo '?')" \
  "$(cut -d' ' -f3 "$work/mpv/frames.txt" 2>/dev/null || echo '?')" \
  "$(grep -o '[0-9]* frames/s' "$work/status.txt" || echo '? frames/s')"
printf '  wallpaper / mpv: %s (goal: at most the X11 wallpaper'"'"'s ratio on Xvfb); against full screen %s\n' \
  "$(ratio "$wp_cpu + $wp_c" "$mpv_cpu + $mpv_c")" "$(ratio "$wp_cpu + $wp_c" "$fs_cpu + $fs_c")"
