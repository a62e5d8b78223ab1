#!/usr/bin/env bash
# CPU time (user + system, every thread and child) of importing a clip into a fresh library
# (hash, metadata, flash check, poster frame, thumbnail, copy) against ffmpeg merely decoding
# it (-f null -), side by side in one run, as a ratio (goal: at most 1.3). Also `flash check`
# against the same yardstick, at the guard's own sampling (its default) and at every pixel.
# Usage: bench/library_import_vs_decode.sh [SECONDS] [SIZE]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
size=${2:-1920x1080}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

source bench/cpu_time.sh
korvalen=$(release_korvalen)

clip="$work/clip.mp4"
ffmpeg -v error -f lavfi -i "testsrc2=size=$size:rate=30" -f lavfi -i "sine=duration=$seconds" -t "$seconds" \
  -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac "$clip"
decode=$(cpu ffmpeg -v error -i "$clip" -f null -)
import=$(XDG_DATA_HOME="$work/data" cpu "$korvalen" library add "$clip")
check=$(cpu "$korvalen" flash check "$clip")
every=$(cpu "$korvalen" flash check "$clip" --step 1)
XDG_DATA_HOME="$work/data" "$korvalen" library list | head -1
ratio() { echo "$1 / $decode" | bc -l; }
printf '%s, %s s: decode only %s s CPU\n' "$size" "$seconds" "$decode"
printf '  library add            %6s s CPU, ratio %.2f (goal 1.3)\n' "$import" "$(ratio "$import")"
printf '  flash check            %6s s CPU, ratio %.2f (goal 1.3; sampled as the guard samples)\n' "$check" \
  "$(ratio "$check")"
printf '  flash check --step 1   %6s s CPU, ratio %.2f (every pixel)\n' "$every" "$(ratio "$every")"
