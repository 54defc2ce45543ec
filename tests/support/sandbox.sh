#!/bin/sh
# Runs a command in a private mount namespace with a fresh tmpfs over /var, so
# that the library's fixed paths (/var/run/zarnelasticd.sock and
# /var/packages/Norvex/etc/fileindex.folders) are private to that command.
# ZARN_TEST_WRAPPER, when set, is put in front of the command (valgrind).
# ZARN_SANDBOX_IDS=N maps ids 0 to N-1 onto the same ids outside, so that
# files inside can have several owners; that takes a caller who is root
# outside, and otherwise only uid 0 is mapped, as without it.
# ZARN_SANDBOX_NET=1 gives the command a network of its own, a loopback that
# nobody else uses: a port found free there stays free for the command.
net= up=
if [ -n "${ZARN_SANDBOX_NET:-}" ]; then net=n up='ip link set lo up && '; fi
inner=$up'mount -t tmpfs -o mode=0755 tmpfs /var &&
  mkdir -p /var/run /var/packages/Norvex/etc &&
  ZARN_TEST_SANDBOX=1 exec ${ZARN_TEST_WRAPPER:-} "$@"'
ids=${ZARN_SANDBOX_IDS:-}
if [ -z "$ids" ] || [ "$(id -u)" != 0 ]; then
  exec unshare -Urm$net sh -c "$inner" sandbox "$@"
fi
# Only a process outside can write a map of more than one id: the child
# waits on a pipe until its maps are written.
go=$(mktemp -u /tmp/sandbox.XXXXXX)
mkfifo -m 0600 "$go"
unshare -Um$net sh -c 'read ready < "$0" && '"$inner" "$go" "$@" &
child=$!
trap 'kill -TERM $child 2>/dev/null' INT TERM
while [ "$(readlink /proc/$child/ns/user)" = "$(readlink /proc/self/ns/user)" ]; do sleep 0.01; done
echo "0 0 $ids" > /proc/$child/uid_map && echo "0 0 $ids" > /proc/$child/gid_map && echo go > "$go"
rm -f "$go"
wait $child
