#!/usr/bin/env bash
# Builds the library (optimised) and installs it into build/release/stage.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
cmake --install build/release --prefix build/release/stage
