#!/bin/sh
# tests/support/sandbox.sh without the user namespace: a private mount
# namespace with a fresh tmpfs over /var, where the machine's uids stay what
# they are, so that clients may switch to other users and the daemon sees
# each as itself (a user namespace made by `unshare -Ur` maps one uid only).
# That takes root; anywhere else this is the usual sandbox, and the tests
# that need other users skip.
# ZARN_TEST_WRAPPER, when set, is put in front of the command (valgrind).
if [ "$(id -u)" = 0 ] && unshare -m true 2>/dev/null; then
  exec unshare -m sh -c '
    mount -t tmpfs -o mode=0755 tmpfs /var &&
    mkdir -p /var/run /var/packages/Norvex/etc &&
    ZARN_TEST_SANDBOX=1 exec ${ZARN_TEST_WRAPPER:-} "$@"' sandbox "$@"
fi
exec "$(dirname "$0")/../../tests/support/sandbox.sh" "$@"
