#!/bin/sh
# The abuse test at a large scale, by hand: on a copy of /usr/share/doc, one
# user (uid 1000) floods the daemon while another (uid 2000) searches, then
# random and mutated requests; the daemon's RSS and descriptors before,
# during and after.  Inside a private mount namespace, with the machine's
# uids (root only, see daemon/tests/uids_sandbox.sh); nothing outside it is
# touched.
#   sh daemon/bench/abuse.sh BUILD_DIR [FLOOD_SECONDS] [FLOOD_CONNECTIONS] [MUTATED] [WORKERS]
set -eu
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
exec sh "$here/../tests/uids_sandbox.sh" sh -c '
  set -eu
  build=$1 seconds=$2 connections=$3 mutated=$4 workers=$5
  grep -q "^ *0 *0 *4294967295" /proc/self/uid_map ||
    { echo "abuse.sh: needs root outside a user namespace, to run clients as other users"; exit 1; }
  mount --bind /dev/null /dev/log 2>/dev/null || true  # log lines to the daemon log file only
  work=$(mktemp -d /var/abuse.XXXXXX)
  cp -a /usr/share/doc "$work/doc"
  printf "doc\t%s\n" "$work/doc" > "$work/shares"
  export ZARN_SHARE_TABLE="$work/shares"
  echo "[{\"path\": \"/doc\"}]" > /var/packages/Norvex/etc/fileindex.folders
  echo "corpus: $(find "$work/doc" | wc -l) entries, $(du -sm "$work/doc" | cut -f1) MB"
  "$build/daemon/zarnelasticd" index --quiet >/dev/null
  "$build/daemon/zarnelasticd" --foreground --workers "$workers" 2>"$work/daemon.log" &
  daemon=$!
  while [ ! -S /var/run/zarnelasticd.sock ]; do kill -0 "$daemon"; sleep 0.1; done
  abuse="$build/daemon/zarnelasticd_abuse"
  state() { echo "RSS $(awk "/VmRSS/ {print \$2}" /proc/$daemon/status) kB, $(ls /proc/$daemon/fd | wc -l) descriptors"; }
  "$abuse" search doc 20 >/dev/null
  echo "before:              $(state)"
  echo "--- uid 2000 alone, 300 searches"
  "$abuse" --as 2000 search doc 300
  # Every kind of abuse at once, then the expensive searches alone (the
  # unread replies and silent requests no longer hold the flooder back).
  for kinds in 012345 012; do
    echo "--- uid 1000 floods ($kinds): $connections connections for $seconds s; uid 2000 searches meanwhile"
    "$abuse" --as 1000 flood doc "$seconds" "$connections" $kinds > "$work/flood" &
    flood=$!
    ( peak=0; while kill -0 $flood 2>/dev/null; do
        rss=$(awk "/VmRSS/ {print \$2}" /proc/$daemon/status); [ "$rss" -gt "$peak" ] && peak=$rss
        echo "$peak" > "$work/peak"; sleep 0.2; done ) &
    sleep 1
    "$abuse" --as 2000 search doc 1000000 "$((seconds - 2))"
    wait $flood
    cat "$work/flood"
    echo "during the flood:    peak RSS $(cat "$work/peak") kB"
    sleep 1
    echo "after the flood:     $(state)"
  done
  for round in 1 2 3; do  # memory that grows with the requests grows each round
    echo "--- $mutated random and mutated requests from uid 1000, round $round"
    "$abuse" --as 1000 mutate doc "$mutated" 600 "$round"
    sleep 1
    echo "after round $round:       $(state)"
  done
  kill "$daemon"
  wait "$daemon" && echo "daemon stopped cleanly" || echo "daemon exit status $?"
  echo "daemon log: $(wc -l < "$work/daemon.log") lines; by kind:"
  sed -n "s/^[^ ]* \([a-z_]*\.cpp:[0-9]*\) \(request failed ([0-9]*)\|[a-z ]*\).*/  \1 \2/p" "$work/daemon.log" |
    sort | uniq -c | sort -rn | head -12
' abuse "$build" "${2:-30}" "${3:-200}" "${4:-10000}" "${5:-4}"
