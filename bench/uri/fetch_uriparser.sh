#!/usr/bin/env bash
# Provides Debian's i386 uriparser (library and headers) for the URI
# benchmark when liburiparser-dev:i386 cannot be installed beside the amd64
# packages: the two packages are downloaded with apt-get and unpacked with
# dpkg -x into DEST (a folder of the build tree). Succeeds at once when DEST
# already holds them; fails quietly when they cannot be fetched.
set -euo pipefail
dest=$1
if [ -e "$dest/usr/lib/i386-linux-gnu/liburiparser.so.1" ] && [ -e "$dest/usr/include/uriparser/Uri.h" ]; then
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
apt-get download -q liburiparser-dev:i386 liburiparser1:i386 >/dev/null 2>&1
mkdir -p "$dest"
for deb in ./*.deb; do
  dpkg -x "$deb" "$dest"
done
test -e "$dest/usr/lib/i386-linux-gnu/liburiparser.so.1"
