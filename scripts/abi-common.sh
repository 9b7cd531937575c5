# Shared by check-abi.sh and update-abi-baseline.sh (sourced, not run): builds the library in the
# `abi` preset (RelWithDebInfo: libabigail reads the types from the debug information) and describes
# it the same way for the checked-in baseline and for the check.

abi_dir=abi
abi_symbols=$abi_dir/libvantor_message_board.symbols
abi_baseline=$abi_dir/libvantor_message_board.abi

# Configures and builds the library; prints the path of the built shared object.
abi_build_library() {
  cmake --preset abi >/dev/null
  cmake --build --preset abi >&2
  realpath build/abi/libvantor_message_board.so
}

# The exported dynamic symbols of $1, demangled, one a line, sorted bytewise. The address and type
# columns are cut off, so that moving code inside the library changes nothing. Absolute symbols (the
# name of a version node in the linker's version script) are not code and are left out. Aliases
# (a C1 and a C2 constructor, say) demangle alike and stay as separate lines.
abi_exported_symbols() {
  nm -D --defined-only --demangle "$1" | awk '$2 != "A"' | cut -d' ' -f3- | LC_ALL=C sort
}

# The libabigail description of $1, without the build's paths (so that any checkout produces the same
# file) and with type ids derived from the types (so that a regenerated file differs only where the
# types do).
abi_describe() {
  abidw --no-corpus-path --no-comp-dir-path --short-locs --type-id-style hash "$1"
}
