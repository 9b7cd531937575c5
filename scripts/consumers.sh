#!/usr/bin/env bash
# Builds the library inside other projects, as users do, and runs the consumer program each time (the
# example of a host's own contract, which exits non-zero on any mismatch and prints the version of the
# headers it was built with first):
#   1. add_subdirectory() of the source tree (g++, C++17, Makefiles): the parent gets the library
#      alone (tests/subproject checks that while configuring) and installs nothing;
#   2. FetchContent of the source directory (g++, C++20, warnings as errors, the library's included);
#   3. FetchContent of a source archive (clang++, C++20, warnings as errors), with the install rules
#      asked for: they install the library and its CMake package;
#   4. find_package() of that installation (tests/consumer; g++ and clang++, C++20, warnings as errors).
# Work in build/consumers. Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh

root=$PWD
work=$root/build/consumers
rm -rf "$work"
mkdir -p "$work"
version=$(sed -n 's/^project(vantor_message_board VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "consumers: cannot read the project version from CMakeLists.txt" >&2; exit 1; }

# Runs the consumer built in $1, which must print the version of the headers it was built with first.
run_consumer() {
  local output
  output=$("$1/consumer") || { printf '%s\n' "$output" >&2; echo "consumers: $1/consumer failed" >&2; exit 1; }
  if [ "$(head -n1 <<<"$output")" != "vantor_message_board $version" ] ||
     [ "$(cat "$1/found_version")" != "$version" ]; then
    printf '%s\n' "$output" >&2
    echo "consumers: $1/consumer was not built with the headers and library of $version" >&2
    exit 1
  fi
  echo "consumer in $1: $(tail -n1 <<<"$output")"
}

# Configures (with the given arguments after the source directory), builds and runs one consumer.
consumer() {
  local name=$1 source=$2
  shift 2
  echo "==== $name"
  cmake -S "$source" -B "$work/$name" "$@" >"$work/$name.log" 2>&1 || { cat "$work/$name.log"; exit 1; }
  cmake --build "$work/$name" -j 2 >>"$work/$name.log" 2>&1 || { cat "$work/$name.log"; exit 1; }
  run_consumer "$work/$name"
}

werror=(-DCMAKE_CXX_STANDARD=20 -DCMAKE_CXX_STANDARD_REQUIRED=ON -DCMAKE_COMPILE_WARNING_AS_ERROR=ON)

consumer subdirectory tests/subproject -G "Unix Makefiles" -DCMAKE_CXX_COMPILER=g++ \
    -DVANTOR_MODE=subdirectory -DVANTOR_SOURCE="$root"
cmake --install "$work/subdirectory" --prefix "$work/subdirectory-prefix" >/dev/null
if [ -e "$work/subdirectory-prefix" ]; then
  echo "consumers: the library installed files without being asked to:" >&2
  find "$work/subdirectory-prefix" >&2
  exit 1
fi

consumer fetchcontent-directory tests/subproject -G Ninja -DCMAKE_CXX_COMPILER=g++ "${werror[@]}" \
    -DVANTOR_MODE=fetchcontent -DVANTOR_SOURCE="$root"

# The archive of a source release: the tree without its build directories and version control.
archive=$work/vantor_message_board-$version.tar.gz
tar -czf "$archive" --exclude-vcs --exclude=./build --transform "s,^\.,vantor_message_board-$version," -C "$root" .
consumer fetchcontent-archive tests/subproject -G Ninja -DCMAKE_CXX_COMPILER=clang++ "${werror[@]}" \
    -DVANTOR_MODE=fetchcontent -DVANTOR_SOURCE="$archive" -DVANTOR_MESSAGE_BOARD_INSTALL=ON
prefix=$work/prefix
cmake --install "$work/fetchcontent-archive" --prefix "$prefix" >/dev/null
for file in include/vantor/messaging/version.hpp lib/libvantor_message_board.so.$version \
            lib/cmake/vantor_message_board/vantor_message_board-config.cmake; do
  [ -e "$prefix/$file" ] || { echo "consumers: asked to install, the library did not install $file" >&2; exit 1; }
done

for compiler in g++ clang++; do
  consumer "find_package-$compiler" tests/consumer -G Ninja -DCMAKE_CXX_COMPILER=$compiler "${werror[@]}" \
      -DCMAKE_PREFIX_PATH="$prefix"
  found=$(sed -n 's/^vantor_message_board_DIR:PATH=//p' "$work/find_package-$compiler/CMakeCache.txt")
  if [ "$found" != "$prefix/lib/cmake/vantor_message_board" ]; then
    echo "consumers: find_package() used '$found', not the installation in $prefix" >&2
    exit 1
  fi
done
echo "==== consumers passed: add_subdirectory, FetchContent (directory, archive), find_package (g++, clang++)"
