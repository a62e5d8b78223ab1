#!/usr/bin/env bash
# A web wallpaper's cost, running and paused: the demo's canvas page on Xvfb with openbox,
# then the CPU time and context switches of the wallpaper and every process it started (the
# page's GTK process, WebKit's web and network processes, the sandbox) over SECONDS (default
# 20) while it plays, and again while it is paused.
set -euo pipefail
seconds=${1:-20}
here=$(cd "$(dirname "$0")/.." && pwd)
source "$here/bench/cpu_time.sh"
korvalen=$(release_korvalen)
work=$(mktemp -d)
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT
mkdir -p "$work/run" "$work/page" && chmod 700 "$work/run"
Xvfb :93 -screen 0 1920x1080x24 -nolisten tcp >/dev/null 2>&1 & pids+=($!)
sleep 1
export DISPLAY=:93 XDG_DATA_HOME="$work" XDG_RUNTIME_DIR="$work/run" HOME="$work" SDL_AUDIODRIVER=dummy \
  DBUS_SESSION_BUS_ADDRESS=disabled:
openbox >/dev/null 2>&1 & pids+=($!)
# The demo's page, as `korvalen demo` writes it.
python3 - "$here/src/cli/demo_command.cpp" "$work/page/index.html" <<'PY'
import sys
source = open(sys.argv[1]).read()
start = source.index('R"(<!doctype html>') + 3
open(sys.argv[2], "w").write(source[start:source.index(')";', start)])
PY
"$korvalen" library add "$work/page" > /dev/null
"$korvalen" settings set activePlaylist=Web 'playlists=[{"name":"Web","itemIDs":["1"],"intervalMinutes":60}]' > /dev/null
"$korvalen" wallpaper 2> "$work/wallpaper.log" & pid=$!; pids+=($pid)
sleep 6
tree() {
  python3 - "$1" <<'PY'
import os, sys
root = int(sys.argv[1]); parents = {}
for name in os.listdir('/proc'):
    if name.isdigit():
        try: parents[int(name)] = int(open(f'/proc/{name}/stat').read().rsplit(')', 1)[1].split()[1])
        except OSError: pass
found, level = [root], [root]
while level:
    level = [c for c, p in parents.items() if p in level]; found += level
print(' '.join(map(str, found)))
PY
}
measure() {
  local ticks=0 switches=0
  for p in $(tree "$pid"); do
    ticks=$((ticks + $(awk '{print $14 + $15}' "/proc/$p/stat" 2>/dev/null || echo 0)))
    for task in /proc/"$p"/task/*; do
      switches=$((switches + $(awk '/^voluntary_ctxt_switches/ {s += $2} END {print s + 0}' "$task/status" 2>/dev/null || echo 0)))
    done
  done
  echo "$ticks $switches $(tree "$pid" | wc -w)"
}
hz=$(getconf CLK_TCK)
report() {
  read -r t0 s0 n < <(measure); sleep "$seconds"; read -r t1 s1 n < <(measure)
  echo "$1 over ${seconds} s: CPU $(( (t1 - t0) * 1000 / hz )) ms ($(( (t1 - t0) * 1000 / hz / seconds / 10 ))% of a core), voluntary switches $(( s1 > s0 ? s1 - s0 : 0 )) (threads that ended take theirs with them), processes $n"
}
report "page playing (1920x1080)"
"$korvalen" wallpaper pause > /dev/null
sleep 2
report "page paused"
