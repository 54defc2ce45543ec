#!/bin/sh
# Live indexing's freshness, inside a private namespace (nothing outside it is
# touched): with the daemon running on a share already indexed, the time from
# a file's close until a search finds it, for SINGLES files one at a time and
# for a burst of BURST files written at once; then the daemon's CPU time over
# IDLE seconds of nothing happening, and, the daemon stopped, a batch run's
# time for the same number of new files.  The share is a copy of
# /usr/share/doc, or with --files N a generated tree of N entries.
#   sh daemon/bench/freshness.sh BUILD_DIR [SINGLES [BURST [IDLE]]] [--files N]
set -eu
usage() { echo "usage: sh daemon/bench/freshness.sh BUILD_DIR [SINGLES [BURST [IDLE]]] [--files N]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd)
shift
singles=200 burst=10000 idle=60 files="" counted=0
while [ $# -gt 0 ]; do
  case $1 in
    --files) [ $# -ge 2 ] || usage; files=$2; shift 2 ;;
    [0-9]*)
      counted=$((counted + 1))
      case $counted in 1) singles=$1 ;; 2) burst=$1 ;; 3) idle=$1 ;; *) usage ;; esac
      shift ;;
    *) usage ;;
  esac
done
here=$(cd "$(dirname "$0")" && pwd)
exec sh "$here/../../tests/support/sandbox.sh" sh -c '
  set -eu
  build=$1 singles=$2 burst=$3 idle=$4 files=$5
  daemon=""
  stop() { if [ -n "$daemon" ]; then kill "$daemon" 2>/dev/null || true; wait "$daemon" 2>/dev/null || true; daemon=""; fi; }
  trap stop EXIT
  if [ -n "$files" ]; then
    share=corpus
    "$build/daemon/zarnelasticd_corpus" --files "$files" "/var/$share" >/dev/null
  else
    share=doc
    cp -a /usr/share/doc "/var/$share"
  fi
  printf "%s\t%s\n" "$share" "/var/$share" > /var/shares
  export ZARN_SHARE_TABLE=/var/shares
  echo "[{\"path\": \"/$share\"}]" > /var/packages/Norvex/etc/fileindex.folders
  echo "share: $(find "/var/$share" | wc -l) entries"
  "$build/daemon/zarnelasticd" index --quiet >/dev/null

  "$build/daemon/zarnelasticd" --foreground 2>/var/daemon.log &
  daemon=$!
  while [ ! -S /var/run/zarnelasticd.sock ]; do kill -0 "$daemon"; sleep 0.1; done
  "$build/daemon/zarnelasticd_freshness" "$share" "/var/$share" "$singles" "$burst" > /var/fresh.out
  cat /var/fresh.out

  # utime + stime of the daemon, in clock ticks (fields 14 and 15 of its stat).
  ticks() { sed "s/.*) //" "/proc/$daemon/stat" | awk "{ print \$12 + \$13 }"; }
  sleep 2  # the burst fully applied
  before=$(ticks)
  sleep "$idle"
  after=$(ticks)
  awk -v t=$((after - before)) -v hz="$(getconf CLK_TCK)" -v s="$idle" \
    "BEGIN { printf \"idle: daemon CPU %.2f s over %d s (%.3f %%)\n\", t / hz, s, 100 * t / hz / s }"
  if grep -q "live indexing\|watch limit\|dropped events" /var/daemon.log; then cat /var/daemon.log >&2; exit 1; fi
  stop

  cp -a "/var/$share/burst" "/var/$share/burst2"
  "$build/daemon/zarnelasticd_bench" --measure /var/cost "$build/daemon/zarnelasticd" index --quiet
  read -r seconds rss_kb < /var/cost
  live=$(sed -n "s/.* all found \([0-9.]*\) s after the last close.*/\1/p" /var/fresh.out)
  awk -v n="$burst" -v s="$seconds" -v live="$live" "BEGIN { printf \"batch run of the same %d new files: %.2f s; \
the burst was found %.2f s after the last close: %s the batch time plus 2 s\n\", n, s, live, live <= s + 2 ? \"within\" : \"BEYOND\" }"
' freshness "$build" "$singles" "$burst" "$idle" "$files"
