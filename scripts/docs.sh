#!/usr/bin/env bash
# Builds the API reference (Doxygen, preset `docs`) into build/docs/docs/html. Fails if Doxygen warns,
# an undocumented public entity included, after listing every warning and their count.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh

log=build/docs/doxygen.log
cmake --preset docs >/dev/null
status=0
cmake --build --preset docs >"$log" 2>&1 || status=$?
cat "$log"
# With warnings as errors, Doxygen prints them as "error:"; some are printed twice (a class's members
# again where a derived class inherits them), hence the unique count.
warnings=$({ grep -E '(warning|error): ' "$log" || true; } | sort -u | wc -l)
if (( status != 0 )); then
  echo "docs: FAILED with $warnings Doxygen warning(s)" >&2
  exit "$status"
fi
echo "docs: API reference in build/docs/docs/html/index.html ($warnings warnings)"
