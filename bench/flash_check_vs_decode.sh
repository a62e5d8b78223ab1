#!/usr/bin/env bash
# Wall time of `korvalen flash check` on a 1080p clip against ffmpeg merely decoding the
# same clip (-f null), as a ratio. Usage: bench/flash_check_vs_decode.sh [SECONDS] [STEP]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
step=${2:-1}
korvalen=build/release/src/korvalen
[ -x "$korvalen" ] || { cmake --preset release >/dev/null && cmake --build --preset release --target korvalen; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
clip="$work/clip1080.mp4"
ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -t "$seconds" \
  -c:v libx264 -preset veryfast -pix_fmt yuv420p "$clip"

now() { date +%s.%N; }
start=$(now); ffmpeg -v error -i "$clip" -f null - ; decode=$(echo "$(now) - $start" | bc)
start=$(now); "$korvalen" flash check "$clip" --step "$step" >/dev/null || true; check=$(echo "$(now) - $start" | bc)
frames=$((seconds * 30))
printf 'decode only:  %.2f s\nflash check:  %.2f s (step %s)\nratio:        %.2f\nframes/s:     %.0f\n' \
  "$decode" "$check" "$step" "$(echo "$check / $decode" | bc -l)" "$(echo "$frames / $check" | bc -l)"
