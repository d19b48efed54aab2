#!/usr/bin/env bash
# Provides OpenSSL's i386 libcrypto and headers for the checksum benchmark
# when libssl-dev:i386 cannot be installed beside the amd64 packages: the
# two Debian packages are downloaded with apt-get and unpacked with dpkg -x
# into DEST (a folder of the build tree). Prints nothing and succeeds when
# DEST already holds them; fails quietly when they cannot be fetched.
set -euo pipefail
dest=$1
if [ -e "$dest/usr/lib/i386-linux-gnu/libcrypto.so.3" ] && [ -e "$dest/usr/include/openssl/md5.h" ]; then
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
apt-get download -q libssl-dev:i386 libssl3:i386 >/dev/null 2>&1
mkdir -p "$dest"
for deb in ./*.deb; do
  dpkg -x "$deb" "$dest"
done
test -e "$dest/usr/lib/i386-linux-gnu/libcrypto.so.3"
