#!/usr/bin/env bash
# Fuzzes the library against its model for 60 seconds (libFuzzer, clang++, ASan + UBSan), starting from
# the checked-in corpus in fuzz/corpus. Inputs it finds go to build/fuzz/corpus, never into fuzz/corpus
# (copy a small, telling one there by hand). A disagreement or a sanitizer report stops the run and
# leaves the input as build/fuzz/crash-*; `build/fuzz/fuzz/model_fuzzer FILE` replays it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2
mkdir -p build/fuzz/corpus
cd build/fuzz
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ./fuzz/model_fuzzer -max_total_time=60 -timeout=10 -print_final_stats=1 corpus ../../fuzz/corpus
