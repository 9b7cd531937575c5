#!/usr/bin/env bash
# Builds the library and its example host program (optimised), and runs the example.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
./build/release/host_demo
