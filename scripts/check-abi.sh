#!/usr/bin/env bash
# Compares the library built from the current sources with the baseline under abi/, twice:
#  1. The exported dynamic symbols against abi/libvantor_message_board.symbols. Any difference fails:
#     a removed symbol breaks every program that uses it, and an added one must be recorded on
#     purpose (scripts/update-abi-baseline.sh), so that no symbol becomes part of the ABI by accident.
#  2. libabigail's abidiff against abi/libvantor_message_board.abi. It fails on a change that abidiff
#     calls incompatible (a removed function or variable, a moved virtual function, ...), and on any
#     other change to what already existed (a class that grew a data member, a changed parameter
#     type), which abidiff reports without being able to prove it harmless. Added functions and
#     variables alone pass this check (check 1 still asks for them to be recorded).
# Prints what differs and exits non-zero if either check fails.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
source scripts/abi-common.sh

for file in "$abi_symbols" "$abi_baseline"; do
  if [ ! -f "$file" ]; then
    echo "check-abi: $file is missing; create it with scripts/update-abi-baseline.sh" >&2
    exit 1
  fi
done

library=$(abi_build_library)
work=build/abi/abi-check
mkdir -p "$work"
failed=0

echo "==== exported symbols against $abi_symbols"
abi_exported_symbols "$library" >"$work/symbols"
if diff -u --label "baseline ($abi_symbols)" --label "built ($library)" "$abi_symbols" "$work/symbols" \
    >"$work/symbols.diff"; then
  echo "same $(wc -l <"$work/symbols") symbols"
else
  cat "$work/symbols.diff"
  removed=$(grep -c '^-[^-]' "$work/symbols.diff" || true)
  added=$(grep -c '^+[^+]' "$work/symbols.diff" || true)
  echo "FAILED: $removed symbol(s) removed, $added added. A removal breaks programs built against the"
  echo "baseline; record intended additions with scripts/update-abi-baseline.sh."
  failed=1
fi

echo "==== abidiff against $abi_baseline"
abi_describe "$library" >"$work/current.abi"
# abidiff's exit status is a bit set: 1 error, 2 usage error, 4 the ABI changed, 8 incompatibly.
status=0
abidiff "$abi_baseline" "$work/current.abi" >"$work/abidiff.txt" 2>&1 || status=$?
cat "$work/abidiff.txt"
if (( status & 3 )); then
  echo "FAILED: abidiff could not compare (exit status $status)"
  failed=1
elif (( status & 8 )); then
  echo "FAILED: abidiff found an incompatible ABI change (exit status $status)"
  failed=1
elif (( status & 4 )); then
  # Changed, but not provably incompatible: pass only if the whole change is added symbols.
  status=0
  abidiff --no-added-syms "$abi_baseline" "$work/current.abi" >/dev/null 2>&1 || status=$?
  if (( status != 0 )); then
    echo "FAILED: the ABI of existing functions, variables or types changed (abidiff exit status $status)"
    failed=1
  else
    echo "only additions: compatible"
  fi
else
  echo "no ABI change"
fi

if (( failed )); then
  echo "check-abi: FAILED" >&2
  exit 1
fi
echo "check-abi: the library's ABI matches the baseline"
