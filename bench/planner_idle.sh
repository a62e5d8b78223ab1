#!/usr/bin/env bash
# A waiting planner's cost: start `korvalen planner` on a playlist whose next step is an hour
# away, let it settle, then count its CPU time and context switches (every thread) over
# SECONDS (default 60) with nothing to do. Both should stay at zero.
set -euo pipefail
seconds=${1:-60}
here=$(cd "$(dirname "$0")/.." && pwd)
source "$here/bench/cpu_time.sh"
korvalen=$(release_korvalen)
work=$(mktemp -d)
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work" KORVALEN_SAVER_PLAN="$work/Korvalen/screensaver-plan.json"
mkdir -p "$work/Korvalen"
cat > "$work/Korvalen/settings.json" <<'JSON'
{"playlists": [{"name": "Slow", "itemIDs": ["1", "2"], "intervalMinutes": 60}], "activePlaylist": "Slow"}
JSON
ffmpeg -v error -f lavfi -i color=red:s=64x36 -frames:v 1 "$work/red.png"
ffmpeg -v error -f lavfi -i color=blue:s=64x36 -frames:v 1 "$work/blue.png"
"$korvalen" library add "$work/red.png" "$work/blue.png" > /dev/null
"$korvalen" planner 2> "$work/planner.log" &
pid=$!
sleep 2
measure() {
  local ticks switches=0
  ticks=$(awk '{print $14 + $15}' "/proc/$pid/stat")
  for task in /proc/"$pid"/task/*; do
    switches=$((switches + $(awk '/ctxt_switches/ {s += $2} END {print s}' "$task/status")))
  done
  echo "$ticks $switches"
}
read -r ticks0 switches0 < <(measure)
sleep "$seconds"
read -r ticks1 switches1 < <(measure)
hz=$(getconf CLK_TCK)
echo "planner idle over ${seconds} s: CPU $(( (ticks1 - ticks0) * 1000 / hz )) ms, context switches $((switches1 - switches0)), threads $(ls /proc/$pid/task | wc -l)"
