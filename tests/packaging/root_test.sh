#!/bin/sh
# Installs the Debian packages into a throwaway root, uses them, purges them
# and checks that they left nothing behind, leaving the machine as it was.
#
# The root is an overlay over / whose writes land in a tmpfs, in private
# mount, pid and network namespaces: it goes with them.  It has its own /run,
# so no systemd is seen running there and the maintainer scripts take the
# path of a machine without it.  Root only (dpkg); skips elsewhere.
# Usage: root_test.sh DEB_DIR
set -eu
here=$(cd "$(dirname "$0")" && pwd)
if [ "${1:-}" != --inside ]; then
  [ "$(id -u)" = 0 ] || { echo "root_test: skipped, needs root"; exit 0; }
  debs=$(cd "$1" && pwd)
  # The root starts as a copy of the machine's dpkg database: not one that
  # the machine's own dpkg is halfway through writing.
  for _ in $(seq 120); do
    pgrep -x dpkg >/dev/null || pgrep -x apt-get >/dev/null || pgrep -x apt >/dev/null || break
    sleep 5
  done
  top=$(mktemp -d /tmp/zarn-root.XXXXXX)
  status=0
  unshare --mount --pid --fork --net --propagation private \
    sh "$here/root_test.sh" --inside "$debs" "$top" || status=$?
  rmdir "$top"
  exit $status
fi

debs=$2 top=$3
src=$(cd "$here/../.." && pwd)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
mount -t tmpfs tmpfs "$top"
mkdir "$top/upper" "$top/work" "$top/root" "$top/lower"
mount --bind / "$top/lower"  # the machine's files, to compare with
mount -t overlay overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" "$top/root"
root=$top/root
mount -t proc proc "$root/proc"
mount -t tmpfs tmpfs "$root/run"
mount -t tmpfs tmpfs "$root/tmp"
mount -t tmpfs -o mode=0755 tmpfs "$root/dev"
for node in null zero full random urandom; do
  : >"$root/dev/$node"
  mount --bind "/dev/$node" "$root/dev/$node"
done
ln -s /proc/self/fd "$root/dev/fd"
# The packages and the tree (for the consumer test) at fixed places: the
# root's own /tmp hides the machine's.
mkdir "$root/run/lower" "$root/run/upper" "$root/run/src" "$root/run/debs"
mount --bind "$top/lower" "$root/run/lower"
mount --bind "$top/upper" "$root/run/upper"
mount --bind -o ro "$src" "$root/run/src"
cp "$debs"/*.deb "$root/run/debs/"
# pivot_root, not chroot: the test sandbox makes user namespaces, which a
# chrooted process may not.
cd "$root"
pivot_root . .
umount -l .
cd /
env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/tmp LANG=C.UTF-8 \
  sh /run/src/tests/packaging/in_root.sh /run/debs /run/src "$multiarch"
