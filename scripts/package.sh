#!/usr/bin/env bash
# Builds the two Debian packages (preset `package`), lists their contents, checks them with lintian
# (any error or warning fails), installs them with dpkg, builds and runs tests/consumer (the example of
# a host's own contract) against that system install through find_package() and through pkg-config,
# and removes the packages again, also when a step fails. Run as root; leaves the packages in
# build/package/packages/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh

build=build/package
work=$build/consumer
runtime_package=libvantor-message-board13
dev_package=libvantor-message-board-dev

# Configure from scratch with Debian's hardening flags, as a Debian package build would use them
# (bindnow included). CMake reads CXXFLAGS and LDFLAGS only when it creates its cache, and never
# CPPFLAGS, hence --fresh and the merge.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
env CXXFLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)" \
    LDFLAGS="$(dpkg-buildflags --get LDFLAGS)" \
    cmake --preset package --fresh >/dev/null
cmake --build --preset package
rm -rf "$build/packages"
cpack --preset package >/dev/null

shopt -s nullglob
runtime_deb=("$build"/packages/${runtime_package}_*.deb)
dev_deb=("$build"/packages/${dev_package}_*.deb)
shopt -u nullglob
if [ ${#runtime_deb[@]} -ne 1 ] || [ ${#dev_deb[@]} -ne 1 ]; then
  echo "package: expected one ${runtime_package} and one ${dev_package} package in $build/packages" >&2
  exit 1
fi
for deb in "${runtime_deb[0]}" "${dev_deb[0]}"; do
  echo "==== dpkg -c $(basename "$deb")"
  dpkg -c "$deb"
done

echo "==== lintian"
# Errors and warnings fail; pedantic and informational tags are listed for a reader. One warning is
# suppressed: initial-upload-closes-no-bugs asks the first changelog entry of a package new to Debian's
# archive to close its ITP bug, and these packages are not uploaded there. Lintian unpacks what it
# checks, so as root it runs as nobody, on copies in a directory of its own.
lintian_args=(--fail-on error,warning --pedantic --display-info --suppress-tags initial-upload-closes-no-bugs)
if [ "$(id -u)" -eq 0 ]; then
  lintian_dir=$(mktemp -d)
  cp "${runtime_deb[0]}" "${dev_deb[0]}" "$lintian_dir"
  chmod -R a+rX "$lintian_dir"
  lintian_status=0
  (cd / && runuser -u nobody -- lintian "${lintian_args[@]}" "$lintian_dir"/*.deb) || lintian_status=$?
  rm -rf "$lintian_dir"
  (( lintian_status == 0 )) || exit "$lintian_status"
else
  lintian "${lintian_args[@]}" "${runtime_deb[0]}" "${dev_deb[0]}"
fi

# From here on the packages may be (partly) installed: remove them however the script ends. Purged
# rather than only removed, so that dpkg keeps no record of them.
cleanup() {
  local status=$?
  echo "==== dpkg --purge ${dev_package} ${runtime_package}"
  dpkg --purge "$dev_package" "$runtime_package" >/dev/null || status=1
  exit $status
}
trap cleanup EXIT

echo "==== dpkg -i"
dpkg -i "${runtime_deb[0]}" "${dev_deb[0]}" >/dev/null
libdir=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)

# Runs consumer $1, which prints the version of the headers it was built with first: it must be $2.
run_consumer() {
  local output
  output=$("$1") || { printf '%s\n' "$output" >&2; exit 1; }
  printf '%s\n' "$output"
  if [ "$(head -n1 <<<"$output")" != "vantor_message_board $2" ]; then
    echo "package: $1 was built with the headers of another version than $2" >&2
    exit 1
  fi
}

rm -rf "$work"
echo "==== consumer through find_package()"
cmake -S tests/consumer -B "$work/find_package" -G Ninja -DCMAKE_CXX_COMPILER=g++ >/dev/null
found=$(sed -n 's/^vantor_message_board_DIR:PATH=//p' "$work/find_package/CMakeCache.txt")
if [ "$found" != "$libdir/cmake/vantor_message_board" ]; then
  echo "package: find_package() used '$found', not the installed package" >&2
  exit 1
fi
cmake --build "$work/find_package" >/dev/null
run_consumer "$work/find_package/consumer" "$(cat "$work/find_package/found_version")"

echo "==== consumer through pkg-config"
prefix=$(env -u PKG_CONFIG_PATH pkg-config --variable=prefix vantor_message_board)
if [ "$prefix" != /usr ]; then
  echo "package: pkg-config reports prefix '$prefix', expected /usr" >&2
  exit 1
fi
version=$(env -u PKG_CONFIG_PATH pkg-config --modversion vantor_message_board)
read -r -a flags <<<"$(env -u PKG_CONFIG_PATH pkg-config --cflags --libs vantor_message_board)"
g++ -std=c++17 examples/host_contract.cpp "${flags[@]}" -o "$work/consumer_pc"
run_consumer "$work/consumer_pc" "$version"

# Both consumers must have loaded the packaged library, not some other copy (compared as real paths:
# with a merged /usr, the loader finds /usr/lib/... through /lib/...).
expected=$(realpath "$libdir/libvantor_message_board.so.13")
for program in "$work/find_package/consumer" "$work/consumer_pc"; do
  loaded=$(ldd "$program" | awk '$1 == "libvantor_message_board.so.13" { print $3 }')
  if [ -z "$loaded" ] || [ "$(realpath "$loaded")" != "$expected" ]; then
    echo "package: $program does not load $expected:" >&2
    ldd "$program" >&2
    exit 1
  fi
done
echo "==== packages built, checked, installed and used: $(basename "${runtime_deb[0]}") $(basename "${dev_deb[0]}")"
