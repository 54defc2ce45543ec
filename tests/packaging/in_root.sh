#!/bin/sh
# The packaging test's steps inside the throwaway root (root_test.sh): the
# machine's own files are under /run/lower, what the root changed under
# /run/upper.
# Usage: in_root.sh DEB_DIR SOURCE_DIR MULTIARCH
set -eu
debs=$1 src=$2 multiarch=$3
fail() { echo "FAIL: $*" >&2; exit 1; }
packages="libzarncontentsearchutils7 libzarnplatform1 libzarncontentsearchutils-dev zarnelasticd zarnsearch"
deb() { for p in "$@"; do echo "$debs/${p}_"*"_$(dpkg --print-architecture).deb"; done; }
step() { echo "== $*"; }

step "install"
# shellcheck disable=SC2046,SC2086  # package names and file names have no blanks
dpkg -i $(deb $packages) >/dev/null
[ "$(zarnsearch --version)" = "zarnsearch $(dpkg-query -W -f '${Version}' zarnsearch)" ] ||
  fail "zarnsearch --version: $(zarnsearch --version)"
zarnsearch --version
# Without systemd running, the daemon is enabled for the next boot, not started.
[ -L /etc/systemd/system/multi-user.target.wants/zarnelasticd.service ] ||
  fail "the daemon's unit is not enabled"
! pgrep -x zarnelasticd >/dev/null || fail "the daemon was started without systemd"
# A shard server as an operator enables one; purging must take its link.
systemctl --root=/ --quiet enable xapian-tcpsrv@7301.service

step "the install consumer test against the installed packages"
sh "$src/tests/consumer/run.sh" --installed /usr "lib/$multiarch" c++ >/tmp/consumer.log 2>&1 ||
  { cat /tmp/consumer.log >&2; fail "the consumer test failed"; }
tail -1 /tmp/consumer.log

step "purge keeps the shares' indexes, unless asked"
share=/srv/zarn-root-test
mkdir -p "$share" /etc/zarnplatform /var/packages/Norvex/etc
echo "the quick brown fox" >"$share/fox.txt"
printf 'docs\t%s\n' "$share" >/etc/zarnplatform/shares
echo '[{"path": "/docs"}]' >/var/packages/Norvex/etc/fileindex.folders
zarnelasticd index --quiet >/dev/null 2>&1 || fail "zarnelasticd index failed"
index=$share/@eaDir/ZARN@.fileindexdb
[ -d "$index" ] || fail "no index at $index"
# shellcheck disable=SC2086
dpkg --purge $packages >/dev/null
[ -d "$index" ] || fail "a purge removed a share's index without being asked"
# shellcheck disable=SC2046
dpkg -i $(deb libzarncontentsearchutils7 libzarnplatform1 zarnelasticd) >/dev/null
ZARNELASTICD_PURGE_INDEXES=yes dpkg --purge zarnelasticd libzarncontentsearchutils7 libzarnplatform1 >/dev/null
if [ -e "$index" ] || [ -e "$share/@eaDir" ]; then fail "an asked purge left the index"; fi
rm -rf "$share" /etc/zarnplatform /var/packages

step "nothing left behind"
for p in $packages; do
  ! dpkg-query -W "$p" >/dev/null 2>&1 || fail "$p is still known to dpkg"
done
# Every change the root holds must be dpkg's own bookkeeping; any other file
# made, changed or removed is what the packages left behind.
left=$(cd /run/upper && find . -mindepth 1 | sed 's|^\./||' | sort | while IFS= read -r f; do
  case $f in
    var/lib/dpkg/status | var/lib/dpkg/status-old | var/lib/dpkg/available* | \
    var/lib/dpkg/lock* | var/lib/dpkg/triggers/* | var/lib/dpkg/updates/* | \
    var/log/dpkg.log | etc/ld.so.cache | var/cache/ldconfig/aux-cache | var/cache/man/*) continue ;;
  esac
  if [ -d "/run/upper/$f" ] && [ ! -L "/run/upper/$f" ]; then
    [ -d "/run/lower/$f" ] || echo "$f/"  # a folder made; copies up of the machine's are fine
  elif [ -L "/run/upper/$f" ]; then
    [ "$(readlink "/run/upper/$f")" = "$(readlink "/run/lower/$f" 2>/dev/null)" ] || echo "$f"
  elif [ -c "/run/upper/$f" ]; then
    echo "$f (removed)"
  else
    cmp -s "/run/upper/$f" "/run/lower/$f" || echo "$f"
  fi
done)
[ -z "$left" ] || fail "left behind:
$left"
echo "installed, used and purged without a trace"
