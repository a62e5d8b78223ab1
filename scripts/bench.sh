#!/usr/bin/env bash
# Builds the release benchmarks and runs them.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release >/dev/null
cmake --build --preset release --target korvalen_bench
./build/release/bench/korvalen_bench "$@"
