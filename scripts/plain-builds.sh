#!/usr/bin/env bash
# Builds the project the way most people build a CMake project from source, without our presets:
# `cmake -S . -B <dir> -DCMAKE_BUILD_TYPE=Release`, then `cmake --build` and `ctest`. Once with g++ and
# CMake's default generator (Makefiles), once with clang++ and Ninja, each with every option on (tests,
# examples, benchmarks, the API reference, the install rules and the Debian packages) and with
# warnings as errors, as CI has them. Each also builds the `docs` target and the packages (cpack, which
# must leave no ldconfig call in the runtime package's maintainer scripts). Last, BUILD_TESTING=OFF
# must configure the library alone. Work in build/plain. Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh

work=$PWD/build/plain
rm -rf "$work"
mkdir -p "$work"

# Runs a command with its output in $work/$1.log, shown only when it fails.
logged() {
  local log=$work/$1.log
  shift
  "$@" >>"$log" 2>&1 || { cat "$log"; echo "plain-builds: failed: $*" >&2; exit 1; }
}

build() {
  local name=$1 compiler=$2 generator=$3 dir=$work/$1
  echo "==== $name: $compiler, $generator, Release, every option on, warnings as errors"
  logged "$name" cmake -S . -B "$dir" -G "$generator" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$compiler" \
      -DVANTOR_MESSAGE_BOARD_WERROR=ON -DVANTOR_MESSAGE_BOARD_EXAMPLES=ON -DVANTOR_MESSAGE_BOARD_BENCH=ON \
      -DVANTOR_MESSAGE_BOARD_DOCS=ON -DVANTOR_MESSAGE_BOARD_INSTALL=ON -DVANTOR_MESSAGE_BOARD_PACKAGE=ON \
      -DCMAKE_INSTALL_PREFIX=/usr
  logged "$name" cmake --build "$dir" -j 2
  for program in host_demo host_contract signal_basics bench/vantor_bench; do
    [ -x "$dir/$program" ] || { echo "plain-builds: $name did not build $program" >&2; exit 1; }
  done
  logged "$name" cmake --build "$dir" --target docs
  logged "$name" ctest --test-dir "$dir" -j 2 --output-on-failure --no-tests=error
  grep -E '^[0-9]+% tests passed' "$work/$name.log"
  (cd "$dir" && logged "$name" cpack -G DEB)
  local runtime=("$dir"/packages/libvantor-message-board[0-9]*_*.deb)
  if [ ${#runtime[@]} -ne 1 ] || [ ! -e "${runtime[0]}" ]; then
    echo "plain-builds: $name: cpack built no runtime package" >&2
    exit 1
  fi
  if dpkg-deb --ctrl-tarfile "${runtime[0]}" | tar -t | grep -E 'post(inst|rm)$'; then
    echo "plain-builds: $name: the runtime package still has CPack's maintainer scripts" >&2
    exit 1
  fi
  rm -rf "$dir"
}

build gcc-makefiles g++ "Unix Makefiles"
build clang-ninja clang++ Ninja

echo "==== BUILD_TESTING=OFF: the library alone"
dir=$work/no-tests
logged no-tests cmake -S . -B "$dir" -G Ninja -DBUILD_TESTING=OFF -DVANTOR_MESSAGE_BOARD_EXAMPLES=OFF \
    -DVANTOR_MESSAGE_BOARD_BENCH=OFF -DVANTOR_MESSAGE_BOARD_DOCS=OFF
# One link step (the library's) and no test registered.
links=$(grep -cE '^build [^:]*: CXX_(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)_LINKER' "$dir/build.ninja" || true)
if [ "$links" != 1 ] || [ -e "$dir/CTestTestfile.cmake" ]; then
  echo "plain-builds: BUILD_TESTING=OFF builds $links programs and libraries, or registers tests" >&2
  exit 1
fi
rm -rf "$dir"
echo "==== plain CMake builds passed"
