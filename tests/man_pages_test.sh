#!/bin/sh
# The man pages and --help agree.  For each program, every option that its
# --help prints is in its man page and every option that the page names is
# one that --help prints; for zarnsearch, command by command (a page section
# "## COMMAND" against "zarnsearch COMMAND --help").  The library's page names
# every function and the class that the library exports.
# Usage: man_pages_test.sh ZARNSEARCH ZARNELASTICD SOURCE_DIR
set -eu
zarnsearch=$1 zarnelasticd=$2 src=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
status=0

# The options a text names, sorted, one a line: "--word" or "-x" at the
# start, or after a blank, a bracket, a bar, a comma, a quote or scdoc's "*".
options() { { grep -oE -- "(^|[][ ,|*('\"])--?[a-z][a-z-]*" || true; } | sed 's/^[^-]*//' | sort -u; }

# The options of one section of an scdoc page: "## NAME ..." opens command
# NAME's section, "# ..." a section of no command ("").
section() { awk -v want="$2" '/^# /{cmd=""} /^## /{cmd=$2} cmd==want' "$1" | options; }

# lacks WHAT A B: fails when list A holds lines that list B lacks.
lacks() {
  comm -23 "$2" "$3" >"$tmp/missing"
  [ ! -s "$tmp/missing" ] || { echo "FAIL: $1: $(tr '\n' ' ' <"$tmp/missing")" >&2; status=1; }
}

page=$src/man/zarnsearch.1.scd
"$zarnsearch" --help | awk '/^Commands:/{on=1; next} on && /^$/{exit} on{print $1}' | sort >"$tmp/commands"
awk '/^## /{print $2}' "$page" | sort >"$tmp/man-commands"
lacks "zarnsearch(1) has no section for the command" "$tmp/commands" "$tmp/man-commands"
lacks "zarnsearch(1) has a section for no command" "$tmp/man-commands" "$tmp/commands"
"$zarnsearch" --help | options >"$tmp/help"
section "$page" "" >"$tmp/man"
lacks "zarnsearch(1) lacks what 'zarnsearch --help' prints" "$tmp/help" "$tmp/man"
while read -r command; do
  "$zarnsearch" "$command" --help | options >"$tmp/help-$command"
  section "$page" "$command" >"$tmp/man-$command"
  lacks "zarnsearch(1), $command, lacks what 'zarnsearch $command --help' prints" \
    "$tmp/help-$command" "$tmp/man-$command"
  lacks "zarnsearch(1), $command, names what 'zarnsearch $command --help' does not" \
    "$tmp/man-$command" "$tmp/help-$command"
done <"$tmp/commands"
sort -u "$tmp"/help* >"$tmp/help-all"
lacks "zarnsearch(1) names what no --help of zarnsearch prints" "$tmp/man" "$tmp/help-all"

page=$src/man/zarnelasticd.8.scd
"$zarnelasticd" --help | options >"$tmp/help"
"$zarnelasticd" index --help | options >>"$tmp/help"
sort -u -o "$tmp/help" "$tmp/help"
options <"$page" >"$tmp/man"
lacks "zarnelasticd(8) lacks what 'zarnelasticd --help' prints" "$tmp/help" "$tmp/man"
lacks "zarnelasticd(8) names what 'zarnelasticd --help' does not" "$tmp/man" "$tmp/help"

page=$src/man/zarncontentsearchutils.3.scd
{ sed -n 's/^ *\([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$src/src/exports.map"
  sed -n 's/^ *\([A-Za-z_:]*\)::\*;$/\1/p' "$src/src/exports.map"; } | sort -u >"$tmp/exports"
[ -s "$tmp/exports" ] || { echo "FAIL: no export found in src/exports.map" >&2; exit 1; }
grep -oE '[A-Za-z_][A-Za-z0-9_:]*' "$page" | sort -u >"$tmp/words"
lacks "zarncontentsearchutils(3) does not name the export" "$tmp/exports" "$tmp/words"
exit $status
