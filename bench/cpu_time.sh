# Sourced by the benchmark scripts: `cpu COMMAND...` prints the CPU seconds (user + system,
# every thread and child) the command took, from the shell's own accounting.
cpu() {
  local TIMEFORMAT='%U %S'
  { time "$@" >/dev/null 2>&1 || true; } 2>&1 | awk '{ printf "%.2f", $1 + $2 }'
}
