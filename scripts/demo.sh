#!/bin/sh
# Shows the whole system at work on real files: installs what is missing,
# builds, then inside a private mount namespace (a fresh tmpfs over /var;
# nothing outside it is touched) makes a share from a copy of /usr/share/doc,
# indexes it, starts zarnelasticd and runs searches through zarnsearch, then
# saves a file on the share and finds it without indexing again.
#
# Usage: sh scripts/demo.sh               the demo
#        sh scripts/demo.sh --shell       the same sandbox, with a shell instead
#                                         of the searches, to run your own
#        sh scripts/demo.sh --shards N    the share's index spread over N shards,
#                                         each served by xapian-tcpsrv on the
#                                         loopback (1 to 9; with --shell too)
set -eu

usage() {
  echo "usage: sh scripts/demo.sh [--shell] [--shards N]"
}

share=doc
share_root=/var/shares/$share
share_table=/var/run/zarn-shares
folder_config=/var/packages/Norvex/etc/fileindex.folders
socket=/var/run/zarnelasticd.sock
daemon_log=/var/run/zarnelasticd.log

# ---- inside the sandbox ----------------------------------------------------

# The command line as one would type it: words with special characters quoted.
quoted() {
  line=
  for word in "$@"; do
    case $word in
      *[!A-Za-z0-9_./:=+-]* | "") word="'$(printf '%s' "$word" | sed "s/'/'\\\\''/g")'" ;;
    esac
    line="$line${line:+ }$word"
  done
  printf '%s' "$line"
}

# show HEADING COMMAND...: a heading, the command, its output, and its exit
# status when that is not 0 (an indexed check answers "no" with 1).
show() {
  printf '\n== %s\n$ %s\n' "$1" "$(shift; quoted "$@")"
  shift
  status=0
  "$@" || status=$?
  [ "$status" -eq 0 ] || echo "(exit status $status)"
}

# The folder with the most numbered file names, where natural order shows.
numbered_folder() {
  find "$share_root" -path "$share_root/@eaDir" -prune -o -type f -name '*[0-9]*' -printf '%h\n' |
    grep -E '^[A-Za-z0-9_./-]+$' | sort | uniq -c | sort -rn | awk 'NR == 1 { print $2 }'
}

daemon_pid=
stop_daemon() {
  if [ -n "$daemon_pid" ]; then
    kill -TERM "$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
    daemon_pid=
  fi
}

start_daemon() {
  zarnelasticd --foreground 2>"$daemon_log" &
  daemon_pid=$!
  tries=0
  until [ -S "$socket" ]; do
    tries=$((tries + 1))
    if [ "$tries" -gt 100 ] || ! kill -0 "$daemon_pid" 2>/dev/null; then
      echo "zarnelasticd did not start; its log:" >&2
      cat "$daemon_log" >&2
      exit 1
    fi
    sleep 0.1
  done
}

# start_shards N: N servers on the loopback, one shard each; their list in
# $shard_list.
shard_pids= shard_list=
start_shards() {
  port=$((17300 + $$ % 1000 * 10))
  mkdir -p /var/shards
  for k in $(seq 1 "$1"); do
    port=$((port + 1))
    # A process group of its own: the server signals its whole group as it stops.
    setsid xapian-tcpsrv --writable --quiet --interface 127.0.0.1 --port "$port" "/var/shards/$k" \
      2>>/var/run/shards.log &
    pid=$!
    shard_pids="$shard_pids $pid"
    until ss -ltn "sport = :$port" | grep -q LISTEN; do
      kill -0 "$pid" 2>/dev/null || { echo "xapian-tcpsrv did not start:" >&2; cat /var/run/shards.log >&2; exit 1; }
      sleep 0.05
    done
    shard_list="$shard_list${shard_list:+,}127.0.0.1:$port"
  done
}

stop_shards() {
  for pid in $shard_pids; do kill "$pid" 2>/dev/null || true; done
  shard_pids=
}

# make_album DIR: three songs of one album, made and tagged by ffmpeg, their
# names out of track order.
make_album() {
  mkdir -p "$1"
  for song in "3 Locomotion" "1 Moments Notice" "2 Lazy Bird"; do
    track=${song%% *} title=${song#* }
    ffmpeg -nostdin -loglevel error -f lavfi -i "sine=frequency=$((220 * track)):duration=$((track + 1))" \
      -c:a libmp3lame -metadata title="$title" -metadata artist="Ines Varga" -metadata album="Blue Train" \
      -metadata track="$track" -metadata date=1957 -metadata genre="Hard bop" "$1/$title.mp3"
  done
}

prepare() {
  mount -t tmpfs -o mode=0755 tmpfs /var
  mkdir -p /var/run /var/shares "$(dirname "$folder_config")"
  # Log lines go to the terminal (the daemon runs in the foreground), not to
  # the machine's log.
  if [ -e /dev/log ]; then mount --bind /dev/null /dev/log; fi

  echo "== Making share '$share' from a copy of /usr/share/doc ($(find /usr/share/doc | wc -l) entries) and an album of three songs"
  cp -RP --preserve=mode,timestamps /usr/share/doc "$share_root"
  # Documents made by their own libraries: their words and properties are
  # read by the extraction workers.
  mkdir "$share_root/office"
  zarnelasticd_documents --one "$share_root/office/plan.pdf" pdf "Harbour plan" "Mira Okafor" \
    "The new quay opens in spring; the cormorant colony moves to the north pier."
  zarnelasticd_documents --one "$share_root/office/minutes.docx" docx "Board minutes" "Tomas Lindqvist" \
    "The board approved the budget for the lighthouse repairs."
  make_album "$share_root/music"
  printf '%s\t%s\n' "$share" "$share_root" >"$share_table"
  export ZARN_SHARE_TABLE="$share_table"
  printf '[{"path": "/%s"}]\n' "$share" >"$folder_config"
  echo "share table $share_table:"
  sed 's/^/  /' "$share_table"
  echo "indexed folders $folder_config:"
  sed 's/^/  /' "$folder_config"

  echo
  if [ "$shards" -gt 0 ]; then
    start_shards "$shards"
    echo "== Indexing into $shards shards, each served by xapian-tcpsrv: $shard_list"
    zarnelasticd index --share "$share" --shards "$shard_list"
    echo "the index folder holds the list of shards, $(zarnsearch where "$share" | sed -n 's/^database: *//p')/XAPIANDB:"
    sed 's/^/  /' "$(zarnsearch where "$share" | sed -n 's/^database: *//p')/XAPIANDB"
  else
    echo "== Indexing"
    zarnelasticd index
  fi
  start_daemon
  echo "zarnelasticd answers on $socket"
}

searches() {
  show "A plain query: words are looked for in file names and text" \
    zarnsearch search "$share" license --size 5
  show "A phrase" \
    zarnsearch search "$share" '"GNU General Public License"' --size 5
  show "A field query: files named copyright that mention xapian" \
    zarnsearch search "$share" 'ZARNMDFSName:copyright xapian' --size 5
  show "A range over a number field: files of 1 MB or more, largest first" \
    zarnsearch search "$share" 'ZARNMDFSSize:1000000..1000000000000' --sort ZARNMDFSSize:desc --size 5

  folder=$(numbered_folder)
  if [ -n "$folder" ]; then
    parent=/$share${folder#"$share_root"}
    show "Names from the last, compared character by character" \
      zarnsearch search "$share" "ZARNMDParent:$parent" --sort ZARNMDFSName:desc --size 5
    show "Names from the last, in natural order: numbers in them compare by value" \
      zarnsearch search "$share" "ZARNMDParent:$parent" --sort ZARNMDFSName:desc:natural --size 5
  fi

  show "A PDF found by a word of its body (read by an extraction worker)" \
    zarnsearch search "$share" cormorant --highlight
  show "An office document found by its author" \
    zarnsearch search "$share" 'ZARNMDAuthors:lindqvist'
  pdf=$(zarnsearch search "$share" cormorant --json | sed -n 's/.*"doc_id":\([0-9]*\).*/\1/p' | head -1)
  if [ -n "$pdf" ]; then
    show "The PDF's properties, typed" \
      zarnsearch doc "$share" "$pdf" ZARNMDTitle ZARNMDAuthors ZARNMDCreator ZARNMDContentCreationDate ZARNMDIsEncrypted
  fi
  show "The second page of three, with the highlighted fragments" \
    zarnsearch search "$share" xapian --highlight --page 1 --size 3
  show "The same hits for programs: one JSON object per line" \
    zarnsearch search "$share" xapian --page 1 --size 3 --json
  show "A count" zarnsearch count "$share" license
  show "Every document" zarnsearch count "$share" '*'

  hit=$(zarnsearch search "$share" 'ZARNMDFSName:copyright xapian' --size 1 --json | sed -n 2p)
  doc_id=$(printf '%s' "$hit" | sed -n 's/.*"doc_id":\([0-9]*\).*/\1/p')
  path=$(printf '%s' "$hit" | sed -n 's/.*"path":"\([^"]*\)".*/\1/p')
  if [ -n "$doc_id" ]; then
    show "A document's fields, typed; one it lacks and one nobody knows" \
      zarnsearch doc "$share" "$doc_id" ZARNMDPath ZARNMDFSSize ZARNMDIsDir \
      ZARNMDFSContentChangeDate ZARNMDOwnerUserID ZARNMDTitle ZARNMDColour
  fi

  show "Music: songs by their artist" \
    zarnsearch search "$share" ZARNMDAuthors:varga --size 5
  show "An album in track order" \
    zarnsearch search "$share" 'ZARNMDAlbum:"blue train"' --sort ZARNMDAlbum --sort ZARNMDAudioTrackNumber
  hit=$(zarnsearch search "$share" 'ZARNMDAlbum:"blue train"' --sort ZARNMDAudioTrackNumber --size 1 --json | sed -n 2p)
  doc_id=$(printf '%s' "$hit" | sed -n 's/.*"doc_id":\([0-9]*\).*/\1/p')
  if [ -n "$doc_id" ]; then
    show "Its first track's fields, typed" \
      zarnsearch doc "$share" "$doc_id" ZARNMDTitle ZARNMDAuthors ZARNMDAudioTrackNumber ZARNMDRecordingYear \
      ZARNMDDurationSecond ZARNMDAudioSampleRate ZARNMDCodecs ZARNMDMediaTypes
  fi
  show "Songs between 2.5 and 5 seconds long, the longest first" \
    zarnsearch search "$share" 'ZARNMDDurationSecond:2.5..5' --sort ZARNMDDurationSecond:desc

  show "Where the share's index lives" zarnsearch where "$share"
  show "Is the share indexed?" zarnsearch indexed share "$share"
  show "Is a share that does not exist indexed?" zarnsearch indexed share music
  if [ -n "$path" ]; then
    folder_path=${path%/*}
    show "Is a folder inside the share indexed?" zarnsearch indexed path "$folder_path"
    show "The same folder by its file-system path" \
      zarnsearch indexed full-path "$share_root${folder_path#/"$share"}"
  fi
  show "Does the share's root contain an indexed folder?" zarnsearch indexed contains "/$share"
}

# Live indexing: a file saved on the share is found by the running daemon,
# with no indexing run.
saved_file() {
  note=$share_root/saved-just-now.txt
  # The daemon's first rescan at start catches up on what changed while it
  # was down; a save made before it ends waits for it.
  tries=0
  until grep -q "share $share rescanned" "$daemon_log"; do
    tries=$((tries + 1))
    [ "$tries" -lt 600 ] || { echo "the daemon's first rescan did not end; its log:" >&2; cat "$daemon_log" >&2; exit 1; }
    sleep 0.1
  done
  printf '\n== Live indexing: save a file on the share, then search for it (no indexing run)\n'
  printf '$ echo "minutes of the zephyrine meeting" > %s\n' "$note"
  start=$(date +%s%N)
  echo "minutes of the zephyrine meeting" >"$note"
  until [ "$(zarnsearch count "$share" zephyrine)" = 1 ]; do
    if [ $(($(date +%s%N) - start)) -gt 2000000000 ]; then
      echo "not found within 2 s; the daemon's log:" >&2
      cat "$daemon_log" >&2
      exit 1
    fi
    sleep 0.02
  done
  echo "(searchable $((($(date +%s%N) - start) / 1000000)) ms after the save)"
  show "Found" zarnsearch search "$share" zephyrine
}

own_shell() {
  cat <<EOF

== A shell in the sandbox: share '$share' at $share_root, zarnelasticd running.
Try:  zarnsearch search $share 'your words' --highlight
      echo 'my note' > $share_root/note.txt; zarnsearch search $share note   (live indexing)
      zarnsearch --help          zarnsearch search --help
Leave with 'exit'; the sandbox and everything in it go away.
EOF
  if command -v bash >/dev/null; then
    PS1='[zarn sandbox] \w\$ ' bash --norc -i || true
  else
    PS1='[zarn sandbox] $ ' sh -i || true
  fi
}

in_sandbox() {
  build=$1 mode=$2 shards=$3
  PATH=$build/tools:$build/daemon:$PATH
  export PATH
  trap 'stop_daemon; stop_shards' EXIT
  trap 'exit 130' INT TERM
  prepare
  if [ "$mode" = shell ]; then
    own_shell
  else
    searches
    saved_file
    echo
    echo "== Stopping zarnelasticd"
    stop_daemon
    echo "Your own queries: sh scripts/demo.sh --shell opens a shell in the same sandbox."
  fi
}

# ---- outside -----------------------------------------------------------------

mode=demo shards=0
while [ $# -gt 0 ]; do
  case $1 in
    --shell) mode=shell ;;
    --shards)
      case ${2:-} in
        [1-9]) shards=$2; shift ;;
        *) usage >&2; exit 2 ;;
      esac
      ;;
    --in-sandbox)
      shift
      in_sandbox "$@"
      exit 0
      ;;
    -h | --help)
      usage
      exit 0
      ;;
    *)
      usage >&2
      exit 2
      ;;
  esac
  shift
done

cd "$(dirname "$0")/.."
sh scripts/setup.sh
build=$PWD/build/release
log=$build/demo-build.log
echo "== Building zarnelasticd and zarnsearch in $build (log: $log)"
mkdir -p "$build"
if ! { cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
  cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target zarnelasticd zarnsearch zarnelasticd_documents; } \
  >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "the build failed; the whole log is in $log" >&2
  exit 1
fi
exec unshare -Urm sh "$0" --in-sandbox "$build" "$mode" "$shards"
