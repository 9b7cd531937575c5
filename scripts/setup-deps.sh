#!/usr/bin/env bash
# Installs what building, testing, benchmarking, packaging, documenting and linting the library needs
# (Debian 12), and nothing when it is all there already. Run as root, or with sudo available.
set -euo pipefail

packages=(
  cmake ninja-build make                             # both generators CI builds with (Ninja, Makefiles)
  g++ clang libclang-rt-14-dev                       # toolchains; clang's sanitizer and libFuzzer runtimes
  libboost-dev                                       # boost::optional (and Boost.Signals2 for the benchmark)
  libgtest-dev libgmock-dev libbenchmark-dev         # tests and benchmarks
  libsigc++-3.0-dev                                  # a second signal library the benchmark compares with
  gnuplot-nox python3                                # scripts/bench.sh: charts and the report
  valgrind                                           # scripts/bench.sh: instructions per emission (callgrind)
  binutils pkgconf                                   # nm/readelf and pkg-config for the artefact checks
  dpkg-dev file lintian                              # scripts/package.sh: CPack's dpkg-shlibdeps, checks
  abigail-tools                                      # scripts/check-abi.sh: abidw, abidiff
  doxygen                                            # scripts/docs.sh: the API reference
  clang-format clang-tidy                            # scripts/lint.sh
  gcovr                                              # scripts/coverage.sh
)

# `setup-deps.sh --demo` installs only what scripts/demo.sh needs: a compiler, CMake, Ninja and Boost's
# headers (boost::optional is in the library's interface).
if [ "${1:-}" = "--demo" ]; then
  packages=(cmake ninja-build g++ libboost-dev)
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup-deps: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
