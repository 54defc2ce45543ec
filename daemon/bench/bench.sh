#!/bin/sh
# Index build rate, then search latency and rate with one client and with
# four at once, on a copy of /usr/share/doc, inside a private namespace
# (nothing outside it is touched).
#   sh daemon/bench/bench.sh BUILD_DIR [ROUNDS]
set -eu
build=$(cd "$1" && pwd)
rounds=${2:-200}
here=$(cd "$(dirname "$0")" && pwd)
exec sh "$here/../../tests/support/sandbox.sh" sh -c '
  set -eu
  build=$1 rounds=$2
  work=$(mktemp -d /var/bench.XXXXXX)
  cp -a /usr/share/doc "$work/doc"
  printf "doc\t%s\n" "$work/doc" > "$work/shares"
  export ZARN_SHARE_TABLE="$work/shares"
  echo "[{\"path\": \"/doc\"}]" > /var/packages/Norvex/etc/fileindex.folders
  echo "corpus: $(find "$work/doc" -type f | wc -l) files, $(du -sm "$work/doc" | cut -f1) MB"
  echo "--- first build"; "$build/daemon/zarnelasticd" index --quiet
  echo "--- second run, nothing changed"; "$build/daemon/zarnelasticd" index --quiet
  "$build/daemon/zarnelasticd" --foreground 2>/dev/null &
  daemon=$!
  while [ ! -S /var/run/zarnelasticd.sock ]; do sleep 0.1; done
  for clients in 1 4; do
    echo "--- searches, $clients client(s), $rounds rounds per query each, one connection per search"
    "$build/daemon/zarnelasticd_bench" doc "$rounds" "$clients"
  done
  kill "$daemon"; wait "$daemon" || true
' bench "$build" "$rounds"
