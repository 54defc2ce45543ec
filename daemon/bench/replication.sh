#!/bin/sh
# How far a shard's replica lags behind its primary.  One share indexed into
# one shard whose primary is served by xapian-tcpsrv --writable, with one
# replica kept by xapian-replicate (one pull every INTERVAL seconds) from
# xapian-replicate-server, all on 127.0.0.1.  Each round adds a file, runs
# `zarnelasticd index` (a commit on the primary), then times how long the
# replica takes to reach the primary's revision.  Inside a private
# namespace, on its tmpfs.
#   sh daemon/bench/replication.sh BUILD_DIR [ROUNDS] [--interval S] [--files N]
set -eu
usage() { echo "usage: sh daemon/bench/replication.sh BUILD_DIR [ROUNDS] [--interval S] [--files N]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd)
shift
rounds=10 interval=1 files=2000
while [ $# -gt 0 ]; do
  case $1 in
    --interval) [ $# -ge 2 ] || usage; interval=$2; shift 2 ;;
    --files) [ $# -ge 2 ] || usage; files=$2; shift 2 ;;
    [0-9]*) rounds=$1; shift ;;
    *) usage ;;
  esac
done
for tool in xapian-tcpsrv xapian-replicate xapian-replicate-server xapian-delve; do
  command -v "$tool" >/dev/null || { echo "replication.sh: $tool is missing (sh scripts/setup.sh)" >&2; exit 1; }
done
here=$(cd "$(dirname "$0")" && pwd)
ZARN_SANDBOX_IDS=65536 exec sh "$here/../../tests/support/sandbox.sh" sh -c '
  set -eu
  build=$1 rounds=$2 interval=$3 files=$4
  pids=""
  stop() { for pid in $pids; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done; }
  trap stop EXIT
  listening() { until ss -ltn "sport = :$1" | grep -q LISTEN; do kill -0 "$2"; sleep 0.05; done; }
  revision() { xapian-delve "$1" 2>/dev/null | sed -n "s/^revision = //p"; }
  now() { date +%s.%N; }
  share=corpus work=/var/replication
  mkdir -p "$work/primary"
  "$build/daemon/zarnelasticd_corpus" --files "$files" "$work/$share" >/dev/null
  printf "%s\t%s\n" "$share" "$work/$share" > "$work/shares"
  export ZARN_SHARE_TABLE="$work/shares"
  echo "[{\"path\": \"/$share\"}]" > /var/packages/Norvex/etc/fileindex.folders
  base=$((20000 + $$ % 20000))
  primary=$((base + 1)) replica=$((base + 2)) replication=$((base + 3))
  # The primary keeps the changes of its commits for the replica.
  XAPIAN_MAX_CHANGESETS=100 setsid xapian-tcpsrv --writable --quiet --interface 127.0.0.1 --port "$primary" \
    "$work/primary/shard" 2>/dev/null &
  pids="$pids $!"
  listening "$primary" "$!"
  "$build/daemon/zarnelasticd" index --quiet --share "$share" --shards "127.0.0.1:$primary+127.0.0.1:$replica"
  setsid xapian-replicate-server --interface 127.0.0.1 --port "$replication" "$work/primary" >/dev/null 2>&1 &
  pids="$pids $!"
  listening "$replication" "$!"
  setsid xapian-replicate --quiet --host 127.0.0.1 --port "$replication" --master shard --interval "$interval" \
    --reader-time 1 "$work/replica" &
  pids="$pids $!"
  until [ "$(revision "$work/replica")" = "$(revision "$work/primary/shard")" ]; do sleep 0.05; done
  echo "$files entries; a pull every $interval s; $rounds rounds: a file added, indexed, then the replica awaited"
  : > "$work/lags"
  for round in $(seq 1 "$rounds"); do
    echo "replicated$round" > "$work/$share/added-$round.txt"
    "$build/daemon/zarnelasticd" index --quiet --share "$share" >/dev/null
    start=$(now) wanted=$(revision "$work/primary/shard")
    until [ "$(revision "$work/replica")" = "$wanted" ]; do
      awk -v s="$start" -v n="$(now)" "BEGIN { exit !(n - s > 60) }" && { echo "replica still behind after 60 s" >&2; exit 1; }
      sleep 0.01
    done
    awk -v s="$start" -v e="$(now)" "BEGIN { printf \"%.3f\n\", e - s }" | tee -a "$work/lags"
  done
  sort -n "$work/lags" | awk "{ lag[NR] = \$1 } END { printf \"replica behind its primary after a commit: median %.3f s, max %.3f s\n\", lag[int((NR + 1) / 2)], lag[NR] }"
' replication "$build" "$rounds" "$interval" "$files"
