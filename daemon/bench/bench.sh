#!/bin/sh
# Index build, then search latency and rate with one client and with four at
# once, each query beside the engine's floor for it, inside a private
# namespace (nothing outside it is touched).  The share is a copy of
# /usr/share/doc, or with --files N a generated tree of N files and folders
# (make_corpus.cpp), its text cut from /usr/share/doc.  The share and its
# index live on the namespace's tmpfs, in memory; --dir puts them in a new
# folder inside DIR instead (removed at the end), for trees too large for
# memory: a million entries take about 6 GB, and their index as much again.
#   sh daemon/bench/bench.sh BUILD_DIR [ROUNDS] [--files N] [--dir DIR]
set -eu
usage() { echo "usage: sh daemon/bench/bench.sh BUILD_DIR [ROUNDS] [--files N] [--dir DIR]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd)
shift
rounds=200 files="" dir=/var
while [ $# -gt 0 ]; do
  case $1 in
    --files) [ $# -ge 2 ] || usage; files=$2; shift 2 ;;
    --dir) [ $# -ge 2 ] || usage; dir=$(cd "$2" && pwd); shift 2 ;;
    [0-9]*) rounds=$1; shift ;;
    *) usage ;;
  esac
done
here=$(cd "$(dirname "$0")" && pwd)
# Ids up to 65535 mapped in the namespace, where the caller may map them, so
# that the generated files can have several owners.
ZARN_SANDBOX_IDS=65536 exec sh "$here/../../tests/support/sandbox.sh" sh -c '
  set -eu
  build=$1 rounds=$2 files=$3 dir=$4
  daemon="" work=""
  cleanup() {  # also when a step fails: no daemon left running, no tree left in DIR
    if [ -n "$daemon" ]; then kill "$daemon" 2>/dev/null || true; wait "$daemon" 2>/dev/null || true; fi
    if [ -n "$work" ]; then rm -rf "$work"; fi
  }
  trap cleanup EXIT
  work=$(mktemp -d "$dir/bench.XXXXXX")
  if [ -n "$files" ]; then
    share=corpus
    "$build/daemon/zarnelasticd_corpus" --files "$files" "$work/$share"
  else
    share=doc
    cp -a /usr/share/doc "$work/$share"
  fi
  printf "%s\t%s\n" "$share" "$work/$share" > "$work/shares"
  export ZARN_SHARE_TABLE="$work/shares"
  echo "[{\"path\": \"/$share\"}]" > /var/packages/Norvex/etc/fileindex.folders

  # entries= folders= file_bytes= text_files= text_bytes= indexed_text_bytes=
  eval "$("$build/daemon/zarnelasticd_corpus" --count "$work/$share")"
  awk -v n="$entries" -v d="$folders" -v b="$file_bytes" -v f="$text_files" -v t="$text_bytes" \
    -v i="$indexed_text_bytes" "BEGIN { printf \"share: %d entries (%d folders), %.1f MB of files; text: %d files\
 hold %.1f MB (gzip inflated), of which the indexer keeps %.1f MB (each file\047s first 256 KiB)\n\",
 n, d, b / 1e6, f, t / 1e6, i / 1e6 }"

  build_once() {  # build_once TITLE: runs the indexer, prints its rate and peak memory
    echo "--- $1"
    "$build/daemon/zarnelasticd_bench" --measure "$work/cost" "$build/daemon/zarnelasticd" index --quiet
    read -r seconds rss_kb < "$work/cost"
    awk -v n="$entries" -v s="$seconds" -v kb="$rss_kb" -v text="$indexed_text_bytes" \
      "BEGIN { printf \"%d entries in %.2f s: %.0f files/s, %.1f MB/s of indexed text; indexer peak RSS %.1f MB\n\", n, s, n / s, text / s / 1e6, kb / 1024 }"
  }
  build_once "first build"
  index_kb=$(du -sk "$work/$share/@eaDir" | cut -f1)
  awk -v kb="$index_kb" -v text="$indexed_text_bytes" -v all="$text_bytes" \
    "BEGIN { printf \"index: %.1f MB on disk (du), %.2f times the indexed text, %.2f times the whole text\n\", kb / 1024, kb * 1024 / text, kb * 1024 / all }"
  build_once "second run, nothing changed"

  "$build/daemon/zarnelasticd" --foreground 2>/dev/null &
  daemon=$!
  while [ ! -S /var/run/zarnelasticd.sock ]; do kill -0 "$daemon"; sleep 0.1; done
  for clients in 1 4; do
    echo "--- searches, $clients client(s), $rounds rounds per query each, one connection per search;" \
      "floor: the same match in process, page ids only (ratio floor/daemon)"
    "$build/daemon/zarnelasticd_bench" "$share" "$rounds" "$clients" --mix "$share"
  done
' bench "$build" "$rounds" "$files" "$dir"
