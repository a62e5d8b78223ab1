#!/usr/bin/env bash
# CPU time (user + system, every thread and child) of `korvalen saver --headless` playing a
# 1080p30 clip on a 1920x1080 screen, against ffmpeg merely decoding the same clip
# (-f null -), side by side in one run, as a ratio (goal: at most 1.5). The saver writes one
# frame per frame of the clip (--fps 30) into an MP4, so its figure includes encoding them.
# Usage: bench/saver_vs_decode.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
source bench/cpu_time.sh
korvalen=$(release_korvalen)

clip="$work/clip.mp4"
ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -t "$seconds" -c:v libx264 -preset veryfast \
  -pix_fmt yuv420p "$clip"
"$korvalen" plan put --shared --kind video --path "$clip" --plan "$work/plan.json" >/dev/null
"$korvalen" plan set --guard off --plan "$work/plan.json" >/dev/null
decode=$(cpu ffmpeg -v error -i "$clip" -f null -)
saver=$(cpu "$korvalen" saver --headless --size 1920x1080 --seconds "$seconds" --fps 30 --plan "$work/plan.json" \
  --out "$work/out.mp4")
encode=$(cpu ffmpeg -v error -i "$clip" -c:v libx264 -preset veryfast -pix_fmt yuv420p -y "$work/again.mp4")
printf '1920x1080, %s s: decode only %s s CPU, saver --headless %s s CPU, ratio %.2f\n' \
  "$seconds" "$decode" "$saver" "$(echo "$saver / $decode" | bc -l)"
printf 'for scale: ffmpeg decoding and re-encoding the clip as the saver writes it: %s s CPU\n' "$encode"
