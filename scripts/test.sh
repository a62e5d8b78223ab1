#!/usr/bin/env bash
# Installs what is needed, then builds and runs every test twice: in the release build and
# under AddressSanitizer + UndefinedBehaviorSanitizer; then runs each fuzz target briefly
# (FUZZ_SECONDS, default 10: their corpora are also replayed as tests; deep runs are by hand
# with scripts/fuzz.sh). Fails on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
for preset in release asan; do
  echo "== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "== $preset: test"
  ctest --preset "$preset"
done
echo "== fuzz"
./scripts/fuzz.sh "${FUZZ_SECONDS:-10}"
