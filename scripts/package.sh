#!/bin/sh
# Builds the Debian packages (debian/) into build/deb and checks them with
# lintian: no error, no warning (debian/*.lintian-overrides give the reason
# for each one overridden).
#   sh scripts/package.sh              configures and builds anew, as any
#                                      dpkg-buildpackage does
#   sh scripts/package.sh BUILD_DIR    packages BUILD_DIR, an existing build of
#                                      the tree (CI: its plain build)
set -eu
cd "$(dirname "$0")/.."
out=$PWD/build/deb
rm -rf "$out"
mkdir -p "$out"
if [ $# -gt 0 ]; then
  # The libraries go to the multiarch folder (Multi-Arch: same).  It is an
  # install setting only: nothing is compiled again.
  cmake -S . -B "$1" -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" >/dev/null
  cmake --build "$1" -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
  export ZARN_BUILD_DIR="$1"
fi
version=$(dpkg-parsechangelog -SVersion)
project=$(sed -n 's/^project([a-z]* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ "$version" = "$project" ] ||
  { echo "debian/changelog says $version, CMakeLists.txt $project: add a changelog entry" >&2; exit 1; }
changes=$out/zarncontentsearchutils_${version}_$(dpkg-architecture -qDEB_HOST_ARCH).changes
ZARN_DEB_DIR=$out dpkg-buildpackage -b -us -uc \
  --buildinfo-file="${changes%.changes}.buildinfo" --buildinfo-option=-u"$out" \
  --changes-file="$changes" --changes-option=-u"$out" >"$out/build.log" 2>&1 ||
  { tail -40 "$out/build.log" >&2; exit 1; }
debian/rules clean >/dev/null 2>&1
ls -s --block-size=K "$out"/*.deb
# lintian unpacks what it checks: not as root, and so from a folder of its
# own that it may read (the tree may lie in a folder only root enters).
as_user=
[ "$(id -u)" != 0 ] || as_user="setpriv --reuid=nobody --regid=nogroup --clear-groups env HOME=/tmp"
check=$(mktemp -d)
trap 'rm -rf "$check"' EXIT
cp "$out"/*.deb "$out"/*.buildinfo "$changes" "$check"/
chmod -R a+rX "$check"
(cd "$check" && $as_user lintian --fail-on error,warning --display-level '>=pedantic' "$check/${changes##*/}")
