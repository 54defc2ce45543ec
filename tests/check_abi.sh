#!/bin/sh
# Compares the library's ABI with the recorded baseline; fails on a change
# that breaks programs built against the baseline.  Additions are fine.
# usage: check_abi.sh LIBRARY BASELINE
# To record a new baseline after a deliberate, versioned break:
#   abidw --no-corpus-path --out-file tests/abi/libzarncontentsearchutils.abi LIBRARY
set -u
abidiff --no-added-syms "$2" "$1"
rc=$?
# abidiff's exit status is a bit set: 1 tool error, 2 usage error,
# 4 ABI change, 8 incompatible ABI change.
if [ $((rc & 11)) -ne 0 ]; then
  echo "ABI check failed (abidiff status $rc)"
  exit 1
fi
echo "ABI compatible with the baseline (abidiff status $rc)"
