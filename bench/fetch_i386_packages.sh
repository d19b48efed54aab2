#!/usr/bin/env bash
# Provides a benchmark peer library for i386 when its :i386 development
# package cannot be installed beside the amd64 packages: the Debian packages
# named are downloaded with apt-get and unpacked with dpkg -x into DEST (a
# folder of the build tree). Succeeds at once when DEST already holds them;
# fails quietly when they cannot be fetched. A download that fails is tried
# once more after refreshing the indexes (whose own failure is a warning).
#
# usage: fetch_i386_packages.sh DEST PACKAGE:i386...
set -euo pipefail
. "$(cd "$(dirname "$0")/../scripts" && pwd)/apt.sh"
dest=$1
shift
[ -e "$dest/.complete" ] && exit 0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
apt-get download -q "$@" >/dev/null 2>&1 || { apt_refresh; apt-get download -q "$@" >/dev/null 2>&1; }
mkdir -p "$dest"
for deb in ./*.deb; do
  dpkg -x "$deb" "$dest"
done
touch "$dest/.complete"
