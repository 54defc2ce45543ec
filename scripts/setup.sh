#!/bin/sh
# Installs the Debian packages the build and the tests need, when missing.
# A library the product links belongs in debian/control's Build-Depends too.
set -eu
packages="cmake g++ make pkg-config libjsoncpp-dev libgtest-dev libgmock-dev util-linux valgrind clang libclang-rt-14-dev abigail-tools libxapian-dev xapian-tools zlib1g-dev scdoc bash-completion procps debhelper dpkg-dev lintian iproute2 strace libpoppler-cpp-dev libarchive-dev libxml2-dev libmagic-dev libseccomp-dev libcairo2-dev qpdf recollcmd libicu-dev libexiv2-dev libtag1-dev libavformat-dev libavcodec-dev libavutil-dev ffmpeg python3-mutagen libimage-exiftool-perl"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  echo "installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq $missing >/dev/null
fi
