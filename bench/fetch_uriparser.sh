#!/usr/bin/env bash
# Unpacks Debian's i386 uriparser (library and headers) into a private
# folder under build/ for the URI benchmark, for machines where
# liburiparser-dev:i386 cannot be installed beside the amd64 packages.
# Nothing is installed system-wide; re-run cmake afterwards.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dest=${1:-$root/build/peers/uriparser}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
(cd "$tmp" && apt-get download liburiparser1:i386 liburiparser-dev:i386)
mkdir -p "$dest"
for deb in "$tmp"/*.deb; do dpkg -x "$deb" "$dest"; done
echo "uriparser unpacked into $dest"
