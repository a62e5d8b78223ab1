#!/usr/bin/env bash
# CPU time (user + system, every thread) of `korvalen flash check` against ffmpeg merely
# decoding the same clip (-f null -), side by side in one run, as a ratio (goal: at most
# 1.3). Clips: 1080p30 for SECONDS (default 20) and 4K30 for half as long. Without STEP the
# check samples as the guard does; STEP 1 measures every pixel.
# Usage: bench/flash_check_vs_decode.sh [SECONDS] [STEP]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
step=${2:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

source bench/cpu_time.sh
korvalen=$(release_korvalen)

for spec in "1920x1080 $seconds" "3840x2160 $((seconds / 2))"; do
  read -r size length <<<"$spec"
  clip="$work/clip-$size.mp4"
  ffmpeg -v error -f lavfi -i "testsrc2=size=$size:rate=30" -t "$length" -c:v libx264 -preset veryfast \
    -pix_fmt yuv420p "$clip"
  decode=$(cpu ffmpeg -v error -i "$clip" -f null -)
  check=$(cpu "$korvalen" flash check "$clip" ${step:+--step "$step"})
  printf '%s, %s s: decode only %s s CPU, flash check %s s CPU (step %s), ratio %.2f\n' \
    "$size" "$length" "$decode" "$check" "${step:-sampled as the guard samples}" "$(echo "$check / $decode" | bc -l)"
done
