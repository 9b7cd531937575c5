#!/usr/bin/env bash
# Line and branch coverage of the library (src/ and include/ only) by the whole test suite: builds the
# coverage preset (g++ --coverage, Debug), runs ctest, then prints gcovr's table of lines (with the
# numbers of those never run) and of branches, and the summary. Branches that only raise or unwind an
# exception, and those the compiler proves unreachable, are left out of the branch count.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
cmake --preset coverage >/dev/null
cmake --build --preset coverage -j2
find build/coverage -name '*.gcda' -delete  # count this run only
ctest --preset coverage -j2
gcovr=(gcovr --root . --object-directory build/coverage --filter 'src/' --filter 'include/' -j 2
       --exclude-throw-branches --exclude-unreachable-branches)
"${gcovr[@]}" --txt
"${gcovr[@]}" --txt --branches --print-summary
