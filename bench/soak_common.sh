# Sourced by the soak scripts: the wallpaper's resident memory and open files once a minute,
# and the ending (a death, a sanitizer report, the first and last samples). They set
# `wallpaper` (its pid), `work` (with wallpaper.log), `samples`, `step`, `minutes` and
# `next_sample`.

# `soak_sample [TEXT]`: a sample when a minute has passed since the last, TEXT appended.
soak_sample() {
  if [ $SECONDS -ge $next_sample ]; then
    local rss fds
    rss=$(awk '/VmRSS/ { print $2 }' "/proc/$wallpaper/status")
    fds=$(ls "/proc/$wallpaper/fd" | wc -l)
    echo "$((SECONDS / 60)) min: rss ${rss} KB, open files ${fds}${1:+, $1}" | tee -a "$samples"
    next_sample=$((SECONDS + 60))
  fi
}

# `soak_finish NAME`: ends the wallpaper with SIGTERM and reports; exits 1 on a death or a
# sanitizer report.
soak_finish() {
  local name=$1 status=0
  if ! kill -0 "$wallpaper" 2>/dev/null; then
    echo "$name: the wallpaper died after $step steps" >&2
    tail -40 "$work/wallpaper.log" >&2
    exit 1
  fi
  kill -TERM "$wallpaper"
  wait "$wallpaper" || status=$?
  if grep -q "ERROR: \(AddressSanitizer\|LeakSanitizer\)\|runtime error" "$work/wallpaper.log"; then
    echo "$name: the sanitizers found something:" >&2
    grep -A30 "ERROR: \|runtime error" "$work/wallpaper.log" | head -80 >&2
    exit 1
  fi
  echo "soak: $step steps over $minutes min, exit status $status, no sanitizer report"
  echo "first and last samples:"
  head -1 "$samples"
  tail -1 "$samples"
}
