#!/usr/bin/env bash
# The live wallpaper's cost, side by side in one run, each on a fresh 1920x1080 Xvfb with the
# same 1080p30 clip: `korvalen wallpaper` against `mpv --vo=x11 --hwdec=no` full screen and
# against plain decoding (`ffmpeg -re -i clip -pix_fmt bgra -f null -`), as CPU (the
# program's, every thread, plus the X server's) and peak resident memory. Then the paused
# wallpaper's CPU, and two monitors showing the same clip against one (of one size, and of two).
# Goals: wallpaper <= 0.6 x mpv, <= 1.5 x ffmpeg; paused < 0.5% of a core; two monitors
# < 1.2 x one; resident memory <= mpv's.
# Usage: bench/wallpaper_vs_mpv.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
source bench/cpu_time.sh
korvalen=$(release_korvalen)
for tool in Xvfb xrandr mpv ffmpeg bc; do
  command -v "$tool" >/dev/null || { echo "wallpaper_vs_mpv: $tool is needed" >&2; exit 1; }
done

work=$(mktemp -d)
server=""
player=""
trap '[ -n "$player" ] && kill "$player" 2>/dev/null; [ -n "$server" ] && kill "$server" 2>/dev/null; rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work/data" XDG_RUNTIME_DIR="$work/run" SDL_AUDIODRIVER=dummy DBUS_SESSION_BUS_ADDRESS=disabled:
mkdir -p "$work/run" && chmod 700 "$work/run"

clip="$work/clip.mp4"
ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -t 60 -c:v libx264 -preset veryfast -pix_fmt yuv420p "$clip"
"$korvalen" library add "$clip" >/dev/null
mkdir -p "$work/data/Korvalen"
"$korvalen" settings set 'playlists=[{"name":"One","itemIDs":["1"],"intervalMinutes":600}]' activePlaylist=One \
  accessibility.flashGuard=false >/dev/null

used() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)
peak_rss() { awk '/VmHWM/ { print $2 }' "/proc/$1/status"; }

# Starts Xvfb (WIDTH) and defines MONITORS monitors side by side on it.
xvfb() {
  local width=$1 monitors=$2
  exec 3< <(Xvfb -displayfd 1 -screen 0 "${width}x1080x24" -nolisten tcp -noreset 2>/dev/null)
  server=$!
  read -r display <&3
  export DISPLAY=":$display"
  if [ "$monitors" = 2 ]; then
    xrandr --setmonitor LEFT 1920/508x1080/286+0+0 screen >/dev/null
    xrandr --setmonitor RIGHT 1920/508x1080/286+1920+0 none >/dev/null
  elif [ "$monitors" = mixed ]; then
    xrandr --setmonitor LEFT 1920/508x1080/286+0+0 screen >/dev/null
    xrandr --setmonitor RIGHT 1280/338x720/190+1920+0 none >/dev/null
  fi
}
stop_xvfb() { kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true; server=""; }

# Runs "$@" in the background on the current Xvfb; after a 3 s start measures SECONDS of CPU
# (program + server, in seconds) and the program's peak resident memory (KB).
measure() {
  "$@" >/dev/null 2>"$work/last.log" &
  player=$!
  sleep 3
  local p0 s0 p1 s1 rss
  p0=$(used "$player"); s0=$(used "$server")
  sleep "$seconds"
  p1=$(used "$player"); s1=$(used "$server")
  rss=$(peak_rss "$player")
  kill "$player" 2>/dev/null; wait "$player" 2>/dev/null || true
  player=""
  echo "$(echo "($p1 - $p0) / $hz" | bc -l) $(echo "($s1 - $s0) / $hz" | bc -l) $rss"
}

xvfb 1920 1
read -r mpv_cpu mpv_x mpv_rss < <(measure mpv --no-config --vo=x11 --hwdec=no --ao=null --fs --loop=inf \
  --geometry=1920x1080+0+0 "$clip")
stop_xvfb
xvfb 1920 1
read -r ff_cpu ff_x ff_rss < <(measure ffmpeg -v error -re -stream_loop -1 -i "$clip" -pix_fmt bgra -f null -)
stop_xvfb
xvfb 1920 1
read -r wp_cpu wp_x wp_rss < <(measure "$korvalen" wallpaper)
stop_xvfb

# Paused: start, pause through the socket, then measure.
xvfb 1920 1
"$korvalen" wallpaper >/dev/null 2>"$work/paused.log" &
player=$!
sleep 3
"$korvalen" wallpaper pause >/dev/null
sleep 2
p0=$(used "$player"); s0=$(used "$server")
switches0=$(cat /proc/"$player"/task/*/status | awk '/ctxt_switches/ { s += $2 } END { print s }')
sleep "$seconds"
p1=$(used "$player"); s1=$(used "$server")
switches1=$(cat /proc/"$player"/task/*/status | awk '/ctxt_switches/ { s += $2 } END { print s }')
"$korvalen" wallpaper resume >/dev/null
kill "$player"; wait "$player" 2>/dev/null || true
player=""
stop_xvfb
paused_cpu=$(echo "($p1 - $p0) / $hz" | bc -l)
paused_x=$(echo "($s1 - $s0) / $hz" | bc -l)

xvfb 3840 2
read -r two_cpu two_x two_rss < <(measure "$korvalen" wallpaper)
stop_xvfb
xvfb 3200 mixed
read -r mixed_cpu mixed_x mixed_rss < <(measure "$korvalen" wallpaper)
stop_xvfb

ratio() { echo "($1) / ($2)" | bc -l | xargs printf '%.2f'; }
total() { echo "$1 + $2" | bc -l; }
printf '1080p30 on a 1920x1080 Xvfb for %s s (CPU s: program + X server; peak RSS):\n' "$seconds"
printf '  mpv --vo=x11 --hwdec=no   %6.2f + X %6.2f   %7d KB\n' "$mpv_cpu" "$mpv_x" "$mpv_rss"
printf '  ffmpeg -re ... -f null -  %6.2f + X %6.2f   %7d KB\n' "$ff_cpu" "$ff_x" "$ff_rss"
printf '  korvalen wallpaper        %6.2f + X %6.2f   %7d KB\n' "$wp_cpu" "$wp_x" "$wp_rss"
printf '  wallpaper / mpv:    %s (goal <= 0.6)\n' "$(ratio "$(total "$wp_cpu" "$wp_x")" "$(total "$mpv_cpu" "$mpv_x")")"
printf '  wallpaper / ffmpeg: %s (goal <= 1.5)\n' "$(ratio "$(total "$wp_cpu" "$wp_x")" "$(total "$ff_cpu" "$ff_x")")"
printf '  memory / mpv:       %s (goal <= 1)\n' "$(ratio "$wp_rss" "$mpv_rss")"
printf '  paused: %.3f s + X %.3f s over %s s = %.2f%% of a core, %d context switches (goal < 0.5%%)\n' \
  "$paused_cpu" "$paused_x" "$seconds" "$(echo "100 * ($paused_cpu) / $seconds" | bc -l)" \
  "$((switches1 - switches0))"
printf '  two monitors, same clip: %6.2f + X %6.2f, %s x one (goal < 1.2)\n' "$two_cpu" "$two_x" \
  "$(ratio "$(total "$two_cpu" "$two_x")" "$(total "$wp_cpu" "$wp_x")")"
printf '  the same on 1920x1080 + 1280x720: %6.2f + X %6.2f, %s x one\n' "$mixed_cpu" "$mixed_x" \
  "$(ratio "$(total "$mixed_cpu" "$mixed_x")" "$(total "$wp_cpu" "$wp_x")")"
