#!/usr/bin/env bash
# Runs clang-tidy over the given files (default: every source under src/) with the dev
# build's compile commands. Prefers clang-tidy-16 (apt-get install clang-tidy-16): clang 14 cannot
# parse libstdc++ 12's std::expected. Clang also hides libstdc++ 12's <expected> behind a newer
# concepts level, so that level is declared for it.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset dev >/dev/null
files=("$@")
if [ ${#files[@]} -eq 0 ]; then mapfile -t files < <(git ls-files 'src/*.cpp'); fi
tidy=$(command -v clang-tidy-16 || command -v clang-tidy)
"$tidy" -p build/dev --quiet \
  --extra-arg=-std=c++2b --extra-arg=-Wno-builtin-macro-redefined --extra-arg=-Wno-unknown-warning-option --extra-arg=-D__cpp_concepts=202002L "${files[@]}"
