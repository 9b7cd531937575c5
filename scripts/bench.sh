#!/usr/bin/env bash
# Builds the release preset and runs vantor_bench, the library's one benchmark program.
#
#   bash scripts/bench.sh          full run, about 4 minutes on a 2-core machine: writes
#                                  docs/benchmarks.md and its two charts (docs/benchmarks-*.png)
#   bash scripts/bench.sh --smoke  builds and runs every benchmark once, for a moment each, and writes
#                                  nothing (for CI); fails when the build or a benchmark fails
#
# Environment: BENCH_ROUNDS (default 9) and BENCH_MIN_TIME (seconds per benchmark and round, default
# 0.2) set the length of the full run; a round measures each group of compared benchmarks once, in
# turn (see bench/bench_support.hpp). The raw results stay in build/release/bench-results/.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=full
case "${1:-}" in
  "") ;;
  --smoke) mode=smoke ;;
  *) echo "usage: bash scripts/bench.sh [--smoke]" >&2; exit 2 ;;
esac

bash scripts/setup-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --parallel 2 --target vantor_bench
bench=build/release/bench/vantor_bench

if [ "$mode" = smoke ]; then
  # Every benchmark, for about a millisecond each; the 1 000 000-key fill still runs once.
  exec "$bench" --benchmark_min_time=0.001
fi

rounds=${BENCH_ROUNDS:-9}
min_time=${BENCH_MIN_TIME:-0.2}
results=build/release/bench-results
mkdir -p "$results" docs

started=$(date +%s)
"$bench" --rounds="$rounds" --benchmark_min_time="$min_time" \
         --benchmark_out="$results/results.json" --benchmark_out_format=json \
         --ratios_out="$results/ratios.tsv" | tee "$results/console.txt"
seconds=$(( $(date +%s) - started ))

python3 bench/make_report.py --json "$results/results.json" --ratios "$results/ratios.tsv" \
    --build-dir build/release --data-dir "$results" --output docs/benchmarks.md \
    --emission-chart benchmarks-emission.png --keys-chart benchmarks-board-keys.png \
    --min-time "$min_time" --seconds "$seconds"
gnuplot -e "datadir='$results'; emission_png='docs/benchmarks-emission.png'; keys_png='docs/benchmarks-board-keys.png'" \
    bench/charts.gnuplot

echo "bench.sh: wrote docs/benchmarks.md, docs/benchmarks-emission.png and docs/benchmarks-board-keys.png"
