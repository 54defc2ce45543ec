#!/bin/sh
# Documents beside recollindex, in the same run, inside a private namespace:
#  - per kind (pdf docx xlsx pptx odt ods odp epub html, and song, video and
#    photo, each cycling through its formats): N documents made by their
#    libraries (zarnelasticd_documents, zarnelasticd_media), indexed by
#    `zarnelasticd index` and by `recollindex` (its default helpers), files/s
#    of each and how many of the documents' own words each finds;
#  - the documents together, and with a generated text tree of T entries
#    (zarnelasticd_corpus) beside them: the mixed share;
#  - extraction's share of the time: the same runs with --extract-workers 0
#    (names and metadata only);
#  - the text tree alone, with and without extraction workers.
#   sh daemon/bench/documents.sh BUILD_DIR [N] [--text T] [--kinds "KIND ..."]
set -eu
usage() { echo "usage: sh daemon/bench/documents.sh BUILD_DIR [N] [--text T] [--kinds \"KIND ...\"]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd)
shift
per_kind=200 text=20000 kinds="pdf docx xlsx pptx odt ods odp epub html song video photo"
while [ $# -gt 0 ]; do
  case $1 in
    --text) [ $# -ge 2 ] || usage; text=$2; shift 2 ;;
    --kinds) [ $# -ge 2 ] || usage; kinds=$2; shift 2 ;;
    [0-9]*) per_kind=$1; shift ;;
    *) usage ;;
  esac
done
command -v recollindex >/dev/null || { echo "recollindex is missing: sh scripts/setup.sh" >&2; exit 1; }
here=$(cd "$(dirname "$0")" && pwd)
exec sh "$here/../../tests/support/sandbox.sh" sh ${ZARN_BENCH_TRACE:+-x} -c '
  set -eu
  build=$1 per_kind=$2 text=$3 kinds=$4
  work=$(mktemp -d /var/documents.XXXXXX)
  export ZARN_SHARE_TABLE="$work/shares"
  : > "$ZARN_SHARE_TABLE"
  folders=""
  add_share() {  # add_share NAME DIR
    printf "%s\t%s\n" "$1" "$2" >> "$ZARN_SHARE_TABLE"
    folders="$folders${folders:+, }{\"path\": \"/$1\"}"
    echo "[$folders]" > /var/packages/Norvex/etc/fileindex.folders
  }
  for kind in $kinds; do
    case $kind in
      song|video|photo) make=zarnelasticd_media ;;
      *) make=zarnelasticd_documents ;;
    esac
    "$build/daemon/$make" "$work/$kind" "$per_kind" "$kind" > "$work/$kind.words"
    add_share "$kind" "$work/$kind"
  done
  mkdir "$work/mixed"
  for kind in $kinds; do cp -a "$work/$kind" "$work/mixed/$kind"; done
  "$build/daemon/zarnelasticd_corpus" --files "$text" "$work/mixed/text" >/dev/null
  cp -a "$work/mixed/text" "$work/text"
  add_share mixed "$work/mixed"
  add_share text "$work/text"
  cat "$work"/*.words > "$work/all.words"

  seconds() { awk -v a="$1" -v b="$2" "BEGIN { printf \"%.3f\", b - a }"; }
  now() { date +%s.%N; }
  ours() {  # ours SHARE [OPTIONS]: seconds of a first build
    rm -rf "$work/$1/@eaDir"
    t0=$(now); "$build/daemon/zarnelasticd" index --quiet --share "$1" $2 > "$work/ours.out" 2>&1; t1=$(now)
    seconds "$t0" "$t1"
  }
  theirs() {  # theirs SHARE: seconds of recollindex on a new configuration
    rm -rf "$work/recoll-$1"; mkdir "$work/recoll-$1"
    printf "topdirs = %s\nloglevel = 1\nskippedNames+ = @eaDir\n" "$work/$1" > "$work/recoll-$1/recoll.conf"
    # Its helpers are the Debian ones: they need the Debian python3 and modules.
    t0=$(now); PATH=/usr/bin:$PATH recollindex -c "$work/recoll-$1" > "$work/recoll-$1.log" 2>&1 || true; t1=$(now)
    seconds "$t0" "$t1"
  }
  count() {  # count SHARE FILES: files, entries in the share
    find "$work/$1" -path "*@eaDir" -prune -o -type f -print | wc -l
  }
  found() {  # found SHARE: how many of the sample words each finds, "ours theirs"
    ours_found=0 theirs_found=0 n=0
    for word in $(awk "{ print \$2 }" "$work/$1.words" | head -20); do
      n=$((n + 1))
      [ "$("$build/tools/zarnsearch" count "$1" "$word" 2>/dev/null)" -ge 1 ] && ours_found=$((ours_found + 1))
      [ "$(recollq -c "$work/recoll-$1" -b "$word" 2>/dev/null | wc -l)" -ge 1 ] && theirs_found=$((theirs_found + 1))
    done
    echo "$ours_found/$n $theirs_found/$n"
  }

  printf "%-7s %6s %10s %10s %10s %8s %12s %10s %10s\n" share files "ours f/s" "recoll f/s" ratio "extract" "index KB/f" "found" "recoll"
  for share in $kinds mixed text; do
    files=$(count "$share")
    t_ours=$(ours "$share" "")
    index_kb=$(du -sk "$work/$share/@eaDir" | cut -f1)
    t_off=$(ours "$share" "--extract-workers 0")
    t_ours=$(ours "$share" "")  # the index the searches below read
    t_theirs=$(theirs "$share")
    if [ "$share" = mixed ] || [ "$share" = text ]; then found="-"; else
      "$build/daemon/zarnelasticd" --foreground --no-live 2>/dev/null & daemon=$!
      while [ ! -S /var/run/zarnelasticd.sock ]; do sleep 0.05; done
      found=$(found "$share")
      kill $daemon; wait $daemon || true
    fi
    awk -v s="$share" -v n="$files" -v o="$t_ours" -v off="$t_off" -v r="$t_theirs" -v kb="$index_kb" -v f="$found" \
      "BEGIN { split(f, p, \" \"); printf \"%-7s %6d %10.0f %10.0f %10.2f %7.0f%% %12.1f %10s %10s\n\", s, n, n / o, n / r, r / o, (o > off ? 100 * (o - off) / o : 0), kb / n, p[1], p[2] }"
  done
  rm -rf "$work"
' bench "$build" "$per_kind" "$text" "$kinds"
