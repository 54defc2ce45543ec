#!/bin/sh
# Compares the library's ABI with the recorded baseline and fails on any
# change that abidiff reports: removed symbols, and changed types or
# functions (abidiff leaves out the harmless kinds by itself).  Added
# symbols are fine.  The library must carry debug information.
# usage: check_abi.sh LIBRARY BASELINE
# To record a new baseline after a deliberate, versioned change, from the
# RelWithDebInfo build:
#   abidw --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash LIBRARY |
#     sed "s|$PWD/||g" > tests/abi/libzarncontentsearchutils.abi
set -u
if ! readelf -S "$1" | grep -q '\.debug_info'; then
  echo "$1 has no debug information: build it with RelWithDebInfo or Debug"
  exit 1
fi
abidiff --no-added-syms "$2" "$1"
rc=$?
# abidiff's exit status is a bit set: 1 tool error, 2 usage error,
# 4 ABI change, 8 incompatible ABI change (a symbol removed).  A changed
# type (4) breaks callers built against the old layout just as surely.
if [ "$rc" -ne 0 ]; then
  echo "ABI check failed (abidiff status $rc)"
  exit 1
fi
echo "ABI compatible with the baseline"
