#!/usr/bin/env bash
# Peak memory and wall time of building a ping-pong copy of a 1080p30 clip in segments
# (`korvalen pingpong build`, 1 GiB budget) against a naive single `-vf reverse` of the whole
# clip, for clips of each given length. GNU time's maximum resident set size covers the
# process and every child it waited for, so for the segmented build it is the largest
# ffmpeg run. Usage: bench/pingpong_memory.sh [SECONDS ...]   (default: 10 60)
set -euo pipefail
cd "$(dirname "$0")/.."
lengths=("$@")
[ ${#lengths[@]} -gt 0 ] || lengths=(10 60)
korvalen=build/release/src/korvalen
[ -x "$korvalen" ] || { cmake --preset release >/dev/null && cmake --build --preset release --target korvalen; }
[ -x /usr/bin/time ] || { echo "bench/pingpong_memory.sh needs GNU time: apt-get install time" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Runs a command under GNU time; prints "<peak KiB> <wall seconds>".
measure() {
  /usr/bin/time -f '%M %e' -o "$work/time.txt" "$@" >/dev/null 2>"$work/stderr.txt" || {
    echo "failed: $*" >&2
    cat "$work/stderr.txt" >&2
    exit 1
  }
  cat "$work/time.txt"
}

printf '%-8s %-10s %12s %10s\n' clip build "peak MiB" "wall s"
for seconds in "${lengths[@]}"; do
  clip="$work/clip-$seconds.mp4"
  ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -t "$seconds" \
    -c:v libx264 -preset veryfast -pix_fmt yuv420p "$clip"

  read -r segmentedKiB segmentedWall < <(measure "$korvalen" pingpong build "$clip" --cache "$work/cache")
  read -r naiveKiB naiveWall < <(measure ffmpeg -y -v error -i "$clip" -an -vf reverse -c:v libx264 \
    -pix_fmt yuv420p "$work/naive.mp4")
  rm -rf "$work/cache" "$work/naive.mp4"

  printf '%-8s %-10s %12.0f %10.1f\n' "${seconds}s" segmented "$(echo "$segmentedKiB / 1024" | bc -l)" "$segmentedWall"
  printf '%-8s %-10s %12.0f %10.1f\n' "${seconds}s" naive "$(echo "$naiveKiB / 1024" | bc -l)" "$naiveWall"
  printf '%-8s %-10s %12.2f %10.2f\n' "${seconds}s" "ratio" "$(echo "$segmentedKiB / $naiveKiB" | bc -l)" \
    "$(echo "$segmentedWall / $naiveWall" | bc -l)"
done
