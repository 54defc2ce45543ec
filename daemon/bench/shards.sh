#!/bin/sh
# The cost of shards: one share indexed and searched as a single local
# database, as one shard served by xapian-tcpsrv, and as three, all on this
# machine (the servers share its cores with the daemon and the indexer, so
# the figures are ratios to the local database, not a cluster's).  For each
# layout: indexing rate (one writer thread per shard), the index's size, the
# daemon's start-up rescan, then the query mix with one client, each query
# beside the engine's floor for that layout.  The summary gives each
# layout's ratio to the local database for the page-of-50 mix without its
# highlight query (the sum of the queries' medians) and for the highlight.
# Inside a private namespace, on its tmpfs; the servers listen on 127.0.0.1.
#   sh daemon/bench/shards.sh BUILD_DIR [ROUNDS] [--files N]
set -eu
usage() { echo "usage: sh daemon/bench/shards.sh BUILD_DIR [ROUNDS] [--files N]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd)
shift
rounds=100 files=20000
while [ $# -gt 0 ]; do
  case $1 in
    --files) [ $# -ge 2 ] || usage; files=$2; shift 2 ;;
    [0-9]*) rounds=$1; shift ;;
    *) usage ;;
  esac
done
command -v xapian-tcpsrv >/dev/null || { echo "shards.sh: xapian-tcpsrv is missing (sh scripts/setup.sh)" >&2; exit 1; }
here=$(cd "$(dirname "$0")" && pwd)
ZARN_SANDBOX_IDS=65536 exec sh "$here/../../tests/support/sandbox.sh" sh -c '
  set -eu
  build=$1 rounds=$2 files=$3
  daemon="" servers=""
  stop() {
    if [ -n "$daemon" ]; then kill "$daemon"; wait "$daemon" 2>/dev/null || true; daemon=""; fi
    for pid in $servers; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
    servers=""
  }
  trap stop EXIT
  share=corpus work=/var/shards
  mkdir "$work"
  "$build/daemon/zarnelasticd_corpus" --files "$files" "$work/$share"
  printf "%s\t%s\n" "$share" "$work/$share" > "$work/shares"
  export ZARN_SHARE_TABLE="$work/shares"
  echo "[{\"path\": \"/$share\"}]" > /var/packages/Norvex/etc/fileindex.folders
  eval "$("$build/daemon/zarnelasticd_corpus" --count "$work/$share")"
  echo "share: $entries entries; $rounds rounds per query, 1 client; floor: the same match in process over the same layout"
  base=$((20000 + $$ % 20000))
  printf "%-10s %8s %6s %9s %9s %8s %9s %6s %9s %6s\n" layout "files/s" ratio "bytes/e" "rescan s" ratio \
    "mix ms" ratio "highl. ms" ratio > "$work/summary"
  for layout in local remote-1 remote-3; do
    rm -rf "$work/$share/@eaDir" "$work"/shard-*
    option=""
    case $layout in
      remote-*)
        list=""
        for k in $(seq 1 "${layout#remote-}"); do
          port=$((base + k))
          # A group of its own: the server signals its whole group as it stops.
          setsid xapian-tcpsrv --writable --quiet --interface 127.0.0.1 --port "$port" "$work/shard-$k" 2>/dev/null &
          servers="$servers $!"
          until ss -ltn "sport = :$port" | grep -q LISTEN; do kill -0 "$!"; sleep 0.05; done
          list="$list${list:+,}127.0.0.1:$port"
        done
        option="--shards $list"
        base=$((base + 10)) ;;
    esac
    echo "--- $layout"
    "$build/daemon/zarnelasticd_bench" --measure "$work/cost" "$build/daemon/zarnelasticd" index --quiet --share "$share" $option
    read -r seconds rss_kb < "$work/cost"
    rate=$(awk -v n="$entries" -v s="$seconds" "BEGIN { printf \"%.0f\", n / s }")
    echo "indexed $entries entries in $seconds s: $rate files/s"
    # What the index takes: the local database or every shard.
    bytes=$(du -sb "$work/$share/@eaDir" "$work"/shard-* 2>/dev/null | awk "{ n += \$1 } END { print n }")
    echo "index: $bytes bytes, $((bytes / entries)) per entry"
    "$build/daemon/zarnelasticd" --foreground 2>"$work/daemon.log" &
    daemon=$!
    # The start-up rescan reads the signature of every record: searches
    # wait for its end so that they do not share the machine with it.
    until grep -q "share $share rescanned in" "$work/daemon.log"; do kill -0 "$daemon"; sleep 0.05; done
    rescan=$(sed -n "s/.*share $share rescanned in \([0-9.]*\) s.*/\1/p" "$work/daemon.log")
    echo "start-up rescan: $rescan s"
    "$build/daemon/zarnelasticd_bench" "$share" "$rounds" 1 --mix "$share" | tee "$work/searches"
    stop
    awk -v layout="$layout" -v rate="$rate" -v bytes="$bytes" -v entries="$entries" -v rescan="$rescan" "
      /^(query|all searches|1 client)/ { next }
      NF >= 7 { if (\$1 == \"highlight\") highlight = \$(NF - 3); else mix += \$(NF - 3) }
      END { if (layout == \"local\") { print rate, rescan, mix, highlight > \"$work/base\"; close(\"$work/base\") }
            getline base < \"$work/base\"; split(base, b, \" \")
            printf \"%-10s %8d %6.2f %9d %9.2f %8.2f %9.2f %6.2f %9.2f %6.2f\n\", layout, rate, rate / b[1], bytes / entries,
              rescan, rescan / b[2], mix, mix / b[3], highlight, highlight / b[4] }
    " "$work/searches" >> "$work/summary"
  done
  echo "--- summary, each figure beside its ratio to the local database: indexing rate, index bytes per entry,"
  echo "    start-up rescan, the mix without highlight (sum of medians) and the highlight query (median)"
  cat "$work/summary"
' shards "$build" "$rounds" "$files"
