#!/usr/bin/env bash
# Lints our own code and fails on any finding:
#  - clang-format (.clang-format): every C++ file in the repository, plus the generated version
#    header, must be formatted exactly as clang-format would (`--dry-run -Werror`; nothing is changed).
#  - clang-tidy (.clang-tidy): the library's sources and the example program, and through them our
#    public headers, compiled as the dev preset compiles them.
# Prints each finding and a count of both kinds at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh

# The compile commands of the dev preset; configuring is enough, and writes the version header.
cmake --preset dev >/dev/null
generated_header=build/dev/include/vantor/messaging/version.hpp

list_files() {  # $@: git pathspecs; tracked files, or everything under the source tree outside git
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -- "$@"
  else
    local pattern
    for pattern in "$@"; do find . -path ./build -prune -o -path "./$pattern" -type f -print; done | sed 's|^\./||'
  fi
}

echo "==== clang-format"
mapfile -t format_files < <(list_files '*.cpp' '*.hpp' '*.h' | LC_ALL=C sort)
format_files+=("$generated_header")
unformatted=0
for file in "${format_files[@]}"; do
  if ! report=$(clang-format --dry-run -Werror "$file" 2>&1); then
    unformatted=$((unformatted + 1))
    echo "$report"
    echo "needs clang-format: $file"
  fi
done

echo "==== clang-tidy"
# clang-tidy parses with clang, which rejects g++-only options and, left to its own default (C++14),
# would not see the C++17 that g++ 12 compiles by default. So it reads a copy of the compile commands
# without the former, and is told the standard.
mkdir -p build/lint
sed -e 's/ -fno-gnu-unique//g' build/dev/compile_commands.json >build/lint/compile_commands.json
mapfile -t tidy_files < <(list_files 'src/*.cpp' 'examples/*.cpp' | LC_ALL=C sort)
tidy_log=build/lint/clang-tidy.log
tidy_status=0
clang-tidy -p build/lint --extra-arg=-std=c++17 --quiet "${tidy_files[@]}" >"$tidy_log" 2>&1 || tidy_status=$?
cat "$tidy_log"
# A header's finding is reported once per source file that includes it; count it once.
findings=$({ grep -E '^[^ ].*:[0-9]+:[0-9]+: (warning|error): ' "$tidy_log" || true; } | sort -u | wc -l)
if (( tidy_status != 0 && findings == 0 )); then
  echo "lint: clang-tidy failed (exit status $tidy_status) without a finding; see above" >&2
  findings=1
fi

echo "==== lint: ${unformatted} of ${#format_files[@]} file(s) need clang-format; ${findings} clang-tidy finding(s) in ${#tidy_files[@]} file(s)"
if (( unformatted > 0 || findings > 0 )); then
  exit 1
fi
