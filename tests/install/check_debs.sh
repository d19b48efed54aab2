#!/usr/bin/env bash
# Inspects the Debian packages that scripts/package.sh built: each is for
# i386, has the expected dependencies and files, and the C library version
# it depends on covers every versioned symbol its binaries use.
# usage: check_debs.sh PACKAGES_DIR
set -euo pipefail
dir=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "check_debs: $*" >&2; failures=$((failures + 1)); }
lib=usr/lib/i386-linux-gnu

# package | dependencies that must be declared | files that must be there
expect=(
  "libvrkutil1|libc6 (>=|$lib/libVrkutil.so.1 $lib/libVrkutil.so $lib/libVrkalloc.so $lib/libVrkvfile.so $lib/libVrkwin32.so.1"
  "libvrkutil-dev|libvrkutil1 (=|usr/include/vrkutil/vrk_pe.h $lib/pkgconfig/vrkutil.pc $lib/cmake/Vrkutil/VrkutilConfig.cmake"
  "libvrkutil-standin-dev|libvrkutil-dev (=|usr/include/vrkutil/vrk_standin_ctl.h"
  "vrkutil|libvrkutil1 (=|usr/bin/vrkutil usr/share/man/man1/vrkutil.1.gz usr/share/doc/vrkutil/README.md usr/share/bash-completion/completions/vrkutil"
)
for row in "${expect[@]}"; do
  IFS='|' read -r name depends files <<<"$row"
  deb=$(ls "$dir"/"${name}"_*_i386.deb 2>/dev/null | head -1)
  if [ -z "$deb" ]; then fail "no i386 package $name in $dir"; continue; fi
  [ "$(dpkg-deb -f "$deb" Architecture)" = i386 ] || fail "$name: architecture is not i386"
  declared=$(dpkg-deb -f "$deb" Depends)
  case "$declared" in *"$depends"*) ;; *) fail "$name: Depends '$declared' lacks '$depends'" ;; esac
  listing=$(dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./||')
  for f in $files; do
    grep -qx "$f" <<<"$listing" || fail "$name: missing $f"
  done
  # Binaries must need no more of the C library than the package declares,
  # and no C++ runtime.
  rm -rf "$work/x" && dpkg-deb -x "$deb" "$work/x"
  libc=$(sed -n 's/.*libc6 (>= \([0-9.]*\)).*/\1/p' <<<"$declared")
  while IFS= read -r -d '' bin; do
    file -b "$bin" | grep -q '^ELF 32-bit' || { file -b "$bin" | grep -q ELF && fail "$name: $bin is not 32-bit"; continue; }
    readelf -d "$bin" | grep -q -E 'NEEDED.*(libstdc\+\+|libgcc_s)' && fail "$name: $bin needs the C++ runtime"
    need=$(objdump -T "$bin" | grep -o 'GLIBC_[0-9.]*' | sed 's/GLIBC_//' | sort -uV | tail -1)
    if [ -n "$need" ]; then
      [ -n "$libc" ] || fail "$name: $bin uses GLIBC_$need but the package does not depend on libc6"
      [ -z "$libc" ] || [ "$(printf '%s\n%s\n' "$need" "$libc" | sort -V | tail -1)" = "$libc" ] ||
        fail "$name: $bin uses GLIBC_$need, more than the declared libc6 (>= $libc)"
    fi
  done < <(find "$work/x" -type f -print0)
done
[ $failures -eq 0 ] && echo "$(ls "$dir"/*.deb | wc -l) packages checked" || exit 1
