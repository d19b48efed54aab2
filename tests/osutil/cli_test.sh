#!/usr/bin/env bash
# vrkutil os, path and tempname: outputs and exit statuses.
set -u
vrkutil=$1
pass=0 fail=0

# expect STATUS EXPECTED_STDOUT ARGS...
expect() {
  local want_status=$1 want_out=$2; shift 2
  local out status
  out=$("$vrkutil" "$@" 2>/dev/null); status=$?
  if [ "$status" -eq "$want_status" ] && [ "$out" = "$want_out" ]; then
    pass=$((pass + 1))
  else
    fail=$((fail + 1))
    echo "FAIL: vrkutil $*: status $status (want $want_status), output:"
    echo "$out"
  fi
}

expect 0 $'path=/usr/lib\ndir=/usr/lib/\nfname=\next=' path split /usr/lib
expect 0 $'path=d/a.tar.gz\ndir=d/\nfname=a.tar\next=.gz\n\npath=.rc\ndir=\nfname=.rc\next=' \
  os splitpath d/a.tar.gz .rc
expect 0 'a/b.txt' path make --dir a --name b --ext txt
expect 0 'a/b.txt' os makepath --ext .txt --name b --dir a/
expect 0 '' path make
expect 0 '0' os drivetype /
expect 0 "$(readlink -f "$vrkutil")" os exe
expect 0 'loaded libc.so.6' os load libc.so.6
expect 1 '' os load vrk-no-such-library.so
expect 1 '' os lock /vrk-no-such-file
expect 0 $'locked /dev/null\nunlocked /dev/null' os lock /dev/null
expect 0 $'type=3\nversion=0x2001' os system
expect 2 '' path
expect 2 '' path split
expect 2 '' path make --dir
expect 2 '' path make --drive C
expect 2 '' os frobnicate
expect 2 '' os lock /dev/null forever
expect 2 '' tempname a b c

# A temporary name lies in the folder given and names no file yet.
dir=$(mktemp -d)
name=$(env -u TMPDIR "$vrkutil" tempname "$dir" vrk)
case "$name" in
  "$dir"/vrk?*) [ ! -e "$name" ] && pass=$((pass + 1)) || { fail=$((fail + 1)); echo "FAIL: tempname created $name"; } ;;
  *) fail=$((fail + 1)); echo "FAIL: tempname gave '$name'" ;;
esac
rmdir "$dir"

echo "$pass passed, $fail failed"
[ "$fail" -eq 0 ]
