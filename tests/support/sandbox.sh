#!/bin/sh
# Runs a command in a private mount namespace with a fresh tmpfs over /var, so
# that the library's fixed paths (/var/run/zarnelasticd.sock and
# /var/packages/Norvex/etc/fileindex.folders) are private to that command.
# ZARN_TEST_WRAPPER, when set, is put in front of the command (valgrind).
exec unshare -Urm sh -c '
  mount -t tmpfs -o mode=0755 tmpfs /var &&
  mkdir -p /var/run /var/packages/Norvex/etc &&
  ZARN_TEST_SANDBOX=1 exec ${ZARN_TEST_WRAPPER:-} "$@"' sandbox "$@"
