#!/usr/bin/env bash
# The Wayland wallpaper's goal is a ratio to mpv no worse than the X11 wallpaper's, and this
# machine's noise is larger than the difference: both benchmarks, taken in turn ROUNDS times
# in one run, each ratio printed, then the medians side by side.
# Usage: bench/x11_and_wayland.sh [SECONDS] [ROUNDS]   (defaults 15 and 3)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-15}
rounds=${2:-3}
x11=()
wayland=()
for round in $(seq "$rounds"); do
  x=$(bench/wallpaper_vs_mpv.sh "$seconds" | tee -a /dev/stderr | awk '/wallpaper \/ mpv:/ { print $4 }')
  w=$(bench/wayland_vs_mpv.sh "$seconds" | tee -a /dev/stderr | awk '/wallpaper \/ mpv:/ { print $4 }')
  echo "round $round: X11 $x, Wayland $w" >&2
  x11+=("$x")
  wayland+=("$w")
done
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
printf 'wallpaper / mpv over %s rounds of %s s: X11 %s, Wayland %s (medians: X11 %s, Wayland %s)\n' \
  "$rounds" "$seconds" "${x11[*]}" "${wayland[*]}" "$(median "${x11[@]}")" "$(median "${wayland[@]}")"
