# Sourced by the benchmark scripts: `cpu COMMAND...` prints the CPU seconds (user + system,
# every thread and child) the command took, from the shell's own accounting.
cpu() {
  local TIMEFORMAT='%U %S'
  { time "$@" >/dev/null 2>&1 || true; } 2>&1 | awk '{ printf "%.2f", $1 + $2 }'
}

# The release build's korvalen (built first when missing), for the scripts that measure it.
release_korvalen() {
  local binary=build/release/src/korvalen
  [ -x "$binary" ] || { cmake --preset release >/dev/null && cmake --build --preset release --target korvalen >&2; }
  echo "$binary"
}
