#!/bin/sh
# The judged query set (judged/queries.tsv) through the daemon and, on the
# same files in the same run, through Recoll (recollindex, then recollq in
# its query language and as its search box's "all terms"): recall@10 and
# mean reciprocal rank per kind of query and over all, then the index sizes.
# Fails when the daemon's recall@10 is below 0.9 or not above Recoll's best.
# Inside the test sandbox; nothing outside it is touched.
#   sh daemon/bench/judged.sh BUILD_DIR [--quick] [--verbose]
#   --quick: the generated share of named files only (CI), not /usr/share/doc
set -eu
usage() { echo "usage: sh daemon/bench/judged.sh BUILD_DIR [--quick] [--verbose]" >&2; exit 2; }
case ${1:-} in ""|-*) usage ;; esac
build=$(cd "$1" && pwd) && shift
quick=0 verbose=0
for arg; do
  case $arg in
    --quick) quick=1 ;;
    --verbose) verbose=1 ;;
    *) usage ;;
  esac
done
here=$(cd "$(dirname "$0")" && pwd)
command -v recollq >/dev/null && command -v recollindex >/dev/null ||
  { echo "judged.sh: recollq and recollindex are needed (Debian recollcmd: sh scripts/setup.sh)" >&2; exit 1; }
exec sh "$here/../../tests/support/sandbox.sh" sh -c '
  set -eu
  build=$1 judged=$2 quick=$3 verbose=$4
  daemon="" work=""
  cleanup() {
    if [ -n "$daemon" ]; then kill "$daemon" 2>/dev/null || true; wait "$daemon" 2>/dev/null || true; fi
    if [ -n "$work" ]; then rm -rf "$work"; fi
  }
  trap cleanup EXIT
  work=$(mktemp -d /var/judged.XXXXXX)
  export HOME=$work

  # The shares.
  shares="named"
  mkdir -p "$work/named"
  grep -v "^#" "$judged/named_share.tsv" | while IFS="	" read -r path text; do
    case $path in
      */) mkdir -p "$work/named/$path" ;;
      *) mkdir -p "$(dirname "$work/named/$path")"; printf "%s" "$text" > "$work/named/$path" ;;
    esac
  done
  if [ "$quick" = 0 ]; then
    shares="named doc"
    cp -a /usr/share/doc "$work/doc"
  fi
  : > "$work/shares"
  folders=""
  for share in $shares; do
    printf "%s\t%s\n" "$share" "$work/$share" >> "$work/shares"
    folders="$folders${folders:+, }{\"path\": \"/$share\"}"
  done
  export ZARN_SHARE_TABLE="$work/shares"
  echo "[$folders]" > /var/packages/Norvex/etc/fileindex.folders

  # The daemon.
  "$build/daemon/zarnelasticd" index --quiet
  "$build/daemon/zarnelasticd" --foreground --no-live 2>/dev/null &
  daemon=$!
  while [ ! -S /var/run/zarnelasticd.sock ]; do kill -0 "$daemon"; sleep 0.1; done

  # Recoll, one configuration per share, its index beside it.
  for share in $shares; do
    mkdir -p "$work/recoll-$share"
    # At the priority of the daemon indexer: Recoll lowers its own by default.
    printf "topdirs = %s\nskippedNames+ = @eaDir\nidxniceprio = 0\n" "$work/$share" > "$work/recoll-$share/recoll.conf"
    recollindex -c "$work/recoll-$share" >"$work/recoll-$share/log" 2>&1 ||
      { tail -20 "$work/recoll-$share/log"; exit 1; }
  done

  # One line per query and engine: engine, share, kind, query, then the
  # share-relative paths of its first 10 hits, tab-separated.
  results=$work/results
  : > "$results"
  grep -v "^#" "$judged/queries.tsv" | while IFS="	" read -r share kind query expected; do
    case " $shares " in *" $share "*) ;; *) continue ;; esac
    line=$(printf "%s\t%s\t%s\t%s" "$share" "$kind" "$query" "$expected")
    found=$("$build/tools/zarnsearch" search "$share" "$query" --size 10 --json |
      sed -n "s/.*\"path\":\"\\/$share\\/\\([^\"]*\\)\".*/\\1/p" | tr "\n" "\t")
    printf "zarnelasticd\t%s\t%s\n" "$line" "$found" >> "$results"
    for mode in lang all; do
      flag=""; [ "$mode" = all ] && flag=-a
      found=$(recollq -c "$work/recoll-$share" $flag -n 10 -b "$query" 2>/dev/null |
        sed -n "s|^file://$work/$share/||p" | tr "\n" "\t")
      printf "recoll-%s\t%s\t%s\n" "$mode" "$line" "$found" >> "$results"
    done
  done

  # Per query: recall@10 = share of its files among the first 10 hits,
  # reciprocal rank = 1 / rank of the first of its files (0: none).
  awk -F "\t" -v verbose="$verbose" -v missing_root=/usr/share/doc "
    function judge(   n, want, i, j, got, first, r) {  # a file listed twice counts once
      n = split(\$5, want, \"|\")
      got = 0; first = 0
      for (i = 1; i <= n; i++)
        for (j = 6; j <= NF && j <= 15; j++)
          if (\$j == want[i]) { got++; if (first == 0 || j - 5 < first) first = j - 5; break }
      recall[\$1] += got / n; rr[\$1] += first ? 1 / first : 0; count[\$1]++
      krecall[\$1, \$3] += got / n; krr[\$1, \$3] += first ? 1 / first : 0; kcount[\$1, \$3]++
      kinds[\$3] = 1; engines[\$1] = 1
      if (verbose && got < n) printf \"miss  %-13s %-6s %-28s %d of %d\n\", \$1, \$2, \$4, got, n
    }
    { judge() }
    END {
      printf \"%-12s\", \"kind\"
      for (e in engines) printf \"  %-26s\", e \" recall@10 / MRR\"
      printf \"\n\"
      for (k in kinds) {
        printf \"%-12s\", k
        for (e in engines) printf \"  %12.3f / %-11.3f\", krecall[e, k] / kcount[e, k], krr[e, k] / kcount[e, k]
        printf \"\n\"
      }
      printf \"%-12s\", \"all\"
      for (e in engines) printf \"  %12.3f / %-11.3f\", recall[e] / count[e], rr[e] / count[e]
      printf \"\nqueries: %d\n\", count[\"zarnelasticd\"]
      best = recall[\"recoll-lang\"] > recall[\"recoll-all\"] ? recall[\"recoll-lang\"] : recall[\"recoll-all\"]
      ours = recall[\"zarnelasticd\"] / count[\"zarnelasticd\"]; best /= count[\"zarnelasticd\"]
      if (ours < 0.9 || ours <= best) {
        printf \"FAIL: recall@10 %.3f, target 0.9 and above Recoll (%.3f)\n\", ours, best
        exit 1
      }
      printf \"pass: recall@10 %.3f (target 0.9), Recoll at best %.3f\n\", ours, best
    }" "$results"
  for share in $shares; do
    ours=$(du -sk "$work/$share/@eaDir" | cut -f1)
    theirs=$(du -sk "$work/recoll-$share/xapiandb" | cut -f1)
    echo "index of $share: zarnelasticd $ours KiB, Recoll $theirs KiB"
  done
' judged "$build" "$here/judged" "$quick" "$verbose"
