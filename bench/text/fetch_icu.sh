#!/usr/bin/env bash
# Provides ICU's i386 libraries and headers for the text benchmark when
# libicu-dev:i386 cannot be installed beside the amd64 packages: the Debian
# packages are downloaded with apt-get and unpacked with dpkg -x into DEST
# (a folder of the build tree). Succeeds at once when DEST already holds
# them; fails quietly when they cannot be fetched.
set -euo pipefail
dest=$1
if compgen -G "$dest/usr/lib/i386-linux-gnu/libicuuc.so.*" >/dev/null && [ -e "$dest/usr/include/unicode/ustring.h" ]; then
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
runtime=$(apt-cache depends libicu-dev:i386 2>/dev/null | sed -n 's/.*Depends: \(libicu[0-9][0-9]*\).*/\1/p' | head -n1)
apt-get download -q libicu-dev:i386 "${runtime:-libicu72}:i386" >/dev/null 2>&1
mkdir -p "$dest"
for deb in ./*.deb; do
  dpkg -x "$deb" "$dest"
done
compgen -G "$dest/usr/lib/i386-linux-gnu/libicuuc.so.*" >/dev/null
