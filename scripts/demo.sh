#!/usr/bin/env bash
# Installs what is needed, builds the release tool and runs its built-in demo.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target korvalen
./build/release/src/korvalen demo
