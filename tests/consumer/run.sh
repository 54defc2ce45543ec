#!/bin/sh
# Installs the build into a temporary prefix, then builds the consumer outside
# the tree twice, with the CMake package and with pkg-config, and runs it and
# the installed zarnsearch in the sandbox.
# Usage: run.sh BUILD_DIR LIBDIR CXX
set -eu
build=$1 libdir=$2 cxx=$3
here=$(cd "$(dirname "$0")" && pwd)
sandbox=$here/../support/sandbox.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null

# What the prefix must hold.
lib=$prefix/$libdir
[ "$(readlink "$lib/libzarncontentsearchutils.so")" = libzarncontentsearchutils.so.7 ] ||
  fail "the development link does not name the SONAME"
[ "$(readlink "$lib/libzarncontentsearchutils.so.7")" = libzarncontentsearchutils.so.7.0.0 ] ||
  fail "the SONAME link does not name the library"
for f in "$lib/libzarncontentsearchutils.so.7.0.0" "$lib/libzarnplatform.so" \
         "$prefix/include/zarncontentsearchutils.h" "$prefix/include/zarn_connection.h" \
         "$prefix/include/zarnplatform.h" "$prefix/bin/zarnsearch" \
         "$lib/pkgconfig/zarncontentsearchutils.pc" \
         "$lib/cmake/zarncontentsearchutils/zarncontentsearchutilsConfig.cmake" \
         "$lib/cmake/zarncontentsearchutils/zarncontentsearchutilsConfigVersion.cmake"; do
  [ -e "$f" ] || fail "not installed: ${f#$prefix/}"
done

# --as-needed would drop JsonCpp and the stand-in, which only the library
# uses: both must stay in the program's needed list.
check_needed() {
  for soname in libjsoncpp.so libzarnplatform.so libzarncontentsearchutils.so.7; do
    readelf -d "$1" | grep -q "NEEDED.*\[$soname" || fail "$2: $soname not needed"
  done
}
run_consumer() {
  LD_LIBRARY_PATH=$lib LD_BIND_NOW=1 "$sandbox" "$1" || fail "$2: the consumer failed"
}

echo "== find_package"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_EXE_LINKER_FLAGS=-Wl,--as-needed >/dev/null
cmake --build "$work/cmake" >/dev/null
check_needed "$work/cmake/consumer" find_package
run_consumer "$work/cmake/consumer" find_package

echo "== pkg-config"
flags=$(PKG_CONFIG_PATH=$lib/pkgconfig pkg-config --cflags --libs zarncontentsearchutils)
echo "$flags"
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wl,--as-needed -o "$work/consumer" "$here/consumer.cpp" $flags
check_needed "$work/consumer" pkg-config
run_consumer "$work/consumer" pkg-config

echo "== installed zarnsearch"
# Finds its libraries next to itself, without LD_LIBRARY_PATH.
LD_BIND_NOW=1 "$sandbox" "$prefix/bin/zarnsearch" --help >/dev/null ||
  fail "the installed zarnsearch does not run"
echo "installed and consumed"
