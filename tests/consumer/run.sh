#!/bin/sh
# Installs the build into a temporary prefix, then builds the consumer outside
# the tree twice, with the CMake package and with pkg-config, and runs it; and
# runs the installed daemon, indexer and zarnsearch on a tiny share, all in the
# sandbox.
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
         "$prefix/include/zarnplatform.h" "$prefix/bin/zarnsearch" "$prefix/sbin/zarnelasticd" \
         "$lib/pkgconfig/zarncontentsearchutils.pc" "$prefix/lib/systemd/system/xapian-tcpsrv@.service" \
         "$prefix/lib/systemd/system/xapian-replicate-server.service" \
         "$prefix/lib/systemd/system/xapian-replicate@.service" \
         "$lib/cmake/zarncontentsearchutils/zarncontentsearchutilsConfig.cmake" \
         "$lib/cmake/zarncontentsearchutils/zarncontentsearchutilsConfigVersion.cmake"; do
  [ -e "$f" ] || fail "not installed: ${f#$prefix/}"
done
grep -qx "ExecStart=$prefix/sbin/zarnelasticd --foreground" \
  "$prefix/lib/systemd/system/zarnelasticd.service" ||
  fail "the service unit does not start the installed daemon"

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

echo "== installed daemon, indexer and zarnsearch"
# They find their libraries next to themselves, without LD_LIBRARY_PATH.
found=$(LD_BIND_NOW=1 "$sandbox" sh -c '
  bin=$1 sbin=$2
  if [ -e /dev/log ]; then mount --bind /dev/null /dev/log; fi  # keep the machine log clean
  mkdir -p /var/shares/docs
  echo "the quick brown fox" >/var/shares/docs/fox.txt
  printf "docs\t/var/shares/docs\n" >/var/run/shares
  echo "[{\"path\": \"/docs\"}]" >/var/packages/Norvex/etc/fileindex.folders
  export ZARN_SHARE_TABLE=/var/run/shares
  "$sbin/zarnelasticd" index --quiet >/dev/null || exit 1
  "$sbin/zarnelasticd" --foreground 2>/dev/null &
  for _ in $(seq 100); do [ -S /var/run/zarnelasticd.sock ] && break; sleep 0.05; done
  "$bin/zarnsearch" search docs fox --json
  status=$?
  kill $!
  wait
  exit $status' sandbox "$prefix/bin" "$prefix/sbin") || fail "the installed programs failed"
echo "$found"
echo "$found" | grep -q '"path":"/docs/fox.txt"' || fail "the installed programs did not find the file"
echo "installed and consumed"
