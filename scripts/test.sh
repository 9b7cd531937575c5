#!/usr/bin/env bash
# Builds and runs the whole test suite: Debug with g++ and with clang++, then under AddressSanitizer +
# UndefinedBehaviorSanitizer (clang++) and ThreadSanitizer (g++). Exits non-zero on the first failure.
# Pass preset names to run only those, e.g. `scripts/test.sh dev tsan`.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(dev dev-clang asan tsan)

for preset in "${presets[@]}"; do
  echo "==== ${preset}: configure, build, test"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" -j 2
done
echo "==== all test presets passed: ${presets[*]}"
