#!/usr/bin/env bash
# Fetches the real Windows DLLs that the Win32 layer is tested on, from
# Debian's MinGW packages, into DEST/<group> (apt-get download + dpkg -x
# through bench/fetch_i386_packages.sh; nothing is installed). A group that
# cannot be fetched is reported and left out; the tests that need it skip.
# Always exits 0, so that a half-synchronised archive does not fail CI.
#
# usage: fetch_dlls.sh DEST
set -uo pipefail
dest=$1
fetch=$(cd "$(dirname "$0")/../../bench" && pwd)/fetch_i386_packages.sh
groups=(
  "zlib libz-mingw-w64"
  "runtime-posix gcc-mingw-w64-i686-posix-runtime"
  "runtime-win32 gcc-mingw-w64-i686-win32-runtime"
  "winpthread mingw-w64-i686-dev"
  "gcrypt libgcrypt-mingw-w64-dev libgpg-error-mingw-w64-dev"
)
for group in "${groups[@]}"; do
  read -r name packages <<<"$group"
  # shellcheck disable=SC2086 # the package list is meant to split
  if ! "$fetch" "$dest/$name" $packages; then
    echo "fetch_dlls: could not fetch $packages; the tests of $name skip" >&2
  fi
done
exit 0
