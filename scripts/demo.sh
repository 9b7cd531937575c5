#!/usr/bin/env bash
# Builds the library and its example host program (optimised), and runs the example. Installs only what
# that needs (a compiler, CMake, Ninja, Boost's headers): the test, benchmark, documentation, packaging
# and coverage tools are for scripts/test.sh and CI.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh --demo
cmake --preset release -DVANTOR_MESSAGE_BOARD_BENCH=OFF -DVANTOR_MESSAGE_BOARD_DOCS=OFF >/dev/null
cmake --build --preset release --target host_demo host_contract
./build/release/host_demo
