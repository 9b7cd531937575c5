#!/usr/bin/env bash
# Regenerates the ABI baseline under abi/ from the current sources: the list of exported symbols and
# the libabigail description. Run it for an intended, compatible change (typically new functions),
# after scripts/check-abi.sh has shown that nothing existing changed, and commit both files with the
# change. After a deliberate break, raise the project's major version (and so the SONAME) first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
source scripts/abi-common.sh

library=$(abi_build_library)
mkdir -p "$abi_dir"
abi_exported_symbols "$library" >"$abi_symbols.tmp"
abi_describe "$library" >"$abi_baseline.tmp"
mv "$abi_symbols.tmp" "$abi_symbols"
mv "$abi_baseline.tmp" "$abi_baseline"
echo "update-abi-baseline: wrote $abi_symbols ($(wc -l <"$abi_symbols") symbols) and $abi_baseline"
