#!/usr/bin/env bash
# Runs clang-tidy over the given files (default: every source under src/) with the dev
# build's compile commands. clang 14 hides libstdc++ 12's <expected> behind a newer
# concepts level, so that level is declared for it.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset dev >/dev/null
files=("$@")
if [ ${#files[@]} -eq 0 ]; then mapfile -t files < <(git ls-files 'src/*.cpp'); fi
clang-tidy -p build/dev --quiet \
  --extra-arg=-Wno-builtin-macro-redefined --extra-arg=-D__cpp_concepts=202002L "${files[@]}"
