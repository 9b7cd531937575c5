#!/usr/bin/env bash
# Builds the release preset and runs vantor_bench, the library's one benchmark program, then counts
# the instructions of an 8-slot emission with valgrind --tool=callgrind (vantor_count_instructions).
#
#   bash scripts/bench.sh          full run, about 5 minutes on a 2-core machine: writes
#                                  docs/benchmarks.md and its two charts (docs/benchmarks-*.png)
#   bash scripts/bench.sh --smoke  builds and runs every benchmark once, for a moment each, and each
#                                  instruction count's program natively, without valgrind; writes
#                                  nothing (for CI); fails when the build or a benchmark fails
#
# palacaze/sigslot is measured when its header is in ../shared/peers/sigslot/ beside the project (or
# where the cache variable VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT_DIR points); else its figures are skipped.
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
cmake --preset release -DVANTOR_MESSAGE_BOARD_BENCH=ON >/dev/null  # on, also after the demo turned it off
cmake --build --preset release --parallel 2 --target vantor_bench vantor_count_instructions
bench=build/release/bench/vantor_bench
counter=build/release/bench/vantor_count_instructions

# The contenders whose instructions are counted; sigslot only when this build has it.
contenders=(vantor vantor_13_1 floor)
if "$counter" sigslot 0 >/dev/null 2>&1; then contenders+=(sigslot); fi

if [ "$mode" = smoke ]; then
  # Every benchmark, for about a millisecond each; the 1 000 000-key fill still runs once.
  "$bench" --benchmark_min_time=0.001
  for contender in "${contenders[@]}"; do "$counter" "$contender" 1000 >/dev/null; done
  exit 0
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

# Instructions per 8-slot emission: callgrind's total for N emissions minus its total for none, over N
# (start-up, connection and exit cancel out; the count is the same from one run to the next).
emissions=100000
total_instructions() {  # $1: contender, $2: emissions; prints callgrind's total instruction count
  local out="$results/callgrind.$1.$2"
  if ! valgrind --tool=callgrind --callgrind-out-file="$out" "$counter" "$1" "$2" >/dev/null 2>"$out.log"; then
    echo "bench.sh: callgrind failed on '$counter $1 $2' (see $out.log)" >&2
    return 1
  fi
  awk '/^summary:/ { print $2; found = 1 } END { exit !found }' "$out"
}
echo "Instructions per 8-slot emission (valgrind --tool=callgrind, $emissions emissions minus 0):"
: >"$results/instructions.tsv"
for contender in "${contenders[@]}"; do
  many=$(total_instructions "$contender" "$emissions")
  none=$(total_instructions "$contender" 0)
  per_emission=$(awk -v many="$many" -v none="$none" -v n="$emissions" 'BEGIN { printf "%.1f", (many - none) / n }')
  printf '%s\t%s\n' "$contender" "$per_emission" >>"$results/instructions.tsv"
  printf '  %-12s %s\n' "$contender" "$per_emission"
done

python3 bench/make_report.py --json "$results/results.json" --ratios "$results/ratios.tsv" \
    --instructions "$results/instructions.tsv" --emissions "$emissions" \
    --build-dir build/release --data-dir "$results" --output docs/benchmarks.md \
    --emission-chart benchmarks-emission.png --keys-chart benchmarks-board-keys.png \
    --min-time "$min_time" --seconds "$seconds"
gnuplot -e "datadir='$results'; emission_png='docs/benchmarks-emission.png'; keys_png='docs/benchmarks-board-keys.png'" \
    bench/charts.gnuplot

echo "bench.sh: wrote docs/benchmarks.md, docs/benchmarks-emission.png and docs/benchmarks-board-keys.png"
