#!/bin/bash
# zarnsearch's bash completion, called as bash calls it for a table of
# command lines, over a folder list with the shares "docs" and "music".
# Runs in the sandbox: the folder list lies at its fixed path under /var.
# Usage: completion_test.sh ZARNSEARCH COMPLETION_FILE
set -u
zarnsearch=$1
[ -n "${ZARN_TEST_SANDBOX:-}" ] || { echo "run me through tests/support/sandbox.sh" >&2; exit 2; }
. /usr/share/bash-completion/bash_completion
. "$2"
printf '[{"path": "/docs"}, {"path": "/music/live"}, {"path":"/docs/old"}]\n' \
  >"$_zarnsearch_folder_list"

# Options of the reply only work while bash completes.
compopt() { :; }

# complete LINE: the words offered at the end of LINE, sorted, on one line.
# Words are split as readline splits them, ':' and '=' being words of their own.
complete_line() {
  local line=${1//:/ : }
  line=${line//=/ = }
  read -ra COMP_WORDS <<<"$line"
  [[ $1 == *' ' ]] && COMP_WORDS+=("")
  COMP_WORDS[0]=$zarnsearch
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMP_LINE="$zarnsearch ${1#zarnsearch }"
  COMP_POINT=${#COMP_LINE}
  COMPREPLY=()
  _zarnsearch
  printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ' | sed 's/ $//'
}

status=0
while IFS='|' read -r line want; do
  got=$(complete_line "$line")
  [ "$got" = "$want" ] || { echo "FAIL: '$line': got '$got', want '$want'" >&2; status=1; }
done <<'CASES'
zarnsearch |count doc help indexed search where
zarnsearch se|search
zarnsearch -|--help --verbose --version
zarnsearch help i|indexed
zarnsearch -v where |docs music
zarnsearch search d|docs
zarnsearch search --so|--sort
zarnsearch count docs q --|--agent --uid --verbose
zarnsearch search --page 2 m|music
zarnsearch search docs q --page |
zarnsearch search docs q --sort ZARNMDFSS|ZARNMDFSSize
zarnsearch search docs q --sort ZARNMDFSSize:de|desc desc:natural
zarnsearch search docs q --sort=ZARNMDTi|ZARNMDTitle
zarnsearch doc docs ZARNMDFSN|
zarnsearch doc docs 3 ZARNMDFSN|ZARNMDFSName
zarnsearch doc docs 3 ZARNMDTitle _ZARNMD|_ZARNMDUserTags
zarnsearch indexed |contains full-path path share
zarnsearch indexed share m|music
zarnsearch indexed --cached share |docs music
zarnsearch indexed path /d|/docs/
zarnsearch where docs |
CASES
exit $status
