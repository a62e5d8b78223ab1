#!/usr/bin/env bash
# Builds the libFuzzer targets (clang-16, ASan + UBSan) and runs each for SECONDS (default
# 20), starting from its seed corpus. Fails on the first crash or broken property; the input
# that did it is left in build/fuzz/crashes/ and belongs in fuzz/corpus/<target>/ once fixed.
# Prints executions per target. By hand: ./scripts/fuzz.sh 600 [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-20}"
shift || true
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for file in fuzz/*_fuzz.cpp; do
    name=$(basename "$file" _fuzz.cpp)
    targets+=("$name")
  done
fi

crashes=build/fuzz/crashes
mkdir -p "$crashes"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
status=0
for name in "${targets[@]}"; do
  # A scratch corpus, so what the run finds does not change the repository's seeds.
  work=$(mktemp -d)
  log="$work/log"
  if ! "build/fuzz/fuzz/fuzz_$name" "$work" "fuzz/corpus/$name" -max_total_time="$seconds" -max_len=4096 \
      -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$crashes/$name-" >"$log" 2>&1; then
    echo "fuzz: $name FAILED"
    grep -E 'ERROR|fuzz property broken|SUMMARY|Test unit written' "$log" | head -n 20
    status=1
  else
    runs=$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$log" | grep -oE '[0-9]+$' || echo "?")
    echo "fuzz: $name ok, $runs executions in ${seconds} s"
  fi
  rm -rf "$work"
done
exit $status
