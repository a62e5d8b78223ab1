#!/usr/bin/env bash
# CPU time of `korvalen saver` playing a 1080p30 clip in a 1920x1080 window under Xvfb,
# against ffplay playing the same clip in a window of the same size, side by side in one run,
# as a ratio (goal: at most 1). Each player gets a fresh Xvfb; the figures are the player's
# own CPU (user + system, every thread) and, after "+ X", that plus the X server's, since
# putting the frames on the screen is work the server does for the player.
# Usage: bench/saver_vs_ffplay.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
korvalen=build/release/src/korvalen
[ -x "$korvalen" ] || { cmake --preset release >/dev/null && cmake --build --preset release --target korvalen; }
for tool in Xvfb ffplay ffmpeg bc; do
  command -v "$tool" >/dev/null || { echo "saver_vs_ffplay: $tool is needed (scripts/setup.sh)" >&2; exit 1; }
done

work=$(mktemp -d)
server=""
trap '[ -n "$server" ] && kill "$server" 2>/dev/null; rm -rf "$work"' EXIT
source bench/cpu_time.sh

clip="$work/clip.mp4"
ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -t "$seconds" -c:v libx264 -preset veryfast \
  -pix_fmt yuv420p "$clip"
plan="$work/plan.json"
"$korvalen" plan put --shared --kind video --path "$clip" --fit fill --plan "$plan" >/dev/null

# CPU seconds a process has used so far, from /proc.
used() {
  awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$1/stat"
}

# Runs a command on a fresh 1920x1080 Xvfb; prints "player-cpu server-cpu".
on_xvfb() {
  exec 3< <(Xvfb -displayfd 1 -screen 0 1920x1080x24 -nolisten tcp 2>/dev/null)
  server=$!
  read -r display <&3
  local before after player
  before=$(used "$server")
  player=$(DISPLAY=":$display" SDL_AUDIODRIVER=dummy cpu "$@")
  after=$(used "$server")
  kill "$server" && wait "$server" 2>/dev/null || true
  server=""
  echo "$player $(echo "$after - $before" | bc -l)"
}

play=(ffplay -v error -an -x 1920 -y 1080 -autoexit -t "$seconds" "$clip")
read -r ffplay_cpu ffplay_x < <(on_xvfb "${play[@]}")
# Without a GPU, ffplay's SDL renderer is OpenGL on a software rasteriser; its software
# renderer is the other way it can draw here.
read -r soft_cpu soft_x < <(SDL_RENDER_DRIVER=software on_xvfb "${play[@]}")
"$korvalen" plan set --guard off --plan "$plan" >/dev/null
read -r saver_cpu saver_x < <(on_xvfb "$korvalen" saver --window 1920x1080 --seconds "$seconds" --plan "$plan")
"$korvalen" plan set --guard on --plan "$plan" >/dev/null
read -r guard_cpu guard_x < <(on_xvfb "$korvalen" saver --window 1920x1080 --seconds "$seconds" --plan "$plan")

ratio() { echo "($1) / ($2)" | bc -l | xargs printf '%.2f'; }
printf '1080p30 for %s s in a 1920x1080 window (CPU s, player + X server):\n' "$seconds"
printf '  ffplay                  %6.2f + X %6.2f\n' "$ffplay_cpu" "$ffplay_x"
printf '  ffplay, SDL software    %6.2f + X %6.2f\n' "$soft_cpu" "$soft_x"
printf '  korvalen saver          %6.2f + X %6.2f   ratio %s (with X %s)\n' "$saver_cpu" "$saver_x" \
  "$(ratio "$saver_cpu" "$ffplay_cpu")" "$(ratio "$saver_cpu + $saver_x" "$ffplay_cpu + $ffplay_x")"
printf '  korvalen saver, guarded %6.2f + X %6.2f   ratio %s (with X %s)\n' "$guard_cpu" "$guard_x" \
  "$(ratio "$guard_cpu" "$ffplay_cpu")" "$(ratio "$guard_cpu + $guard_x" "$ffplay_cpu + $ffplay_x")"
printf '  against ffplay with SDL software: saver ratio %s (with X %s)\n' "$(ratio "$saver_cpu" "$soft_cpu")" \
  "$(ratio "$saver_cpu + $saver_x" "$soft_cpu + $soft_x")"
