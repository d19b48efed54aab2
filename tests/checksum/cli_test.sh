#!/usr/bin/env bash
# vrkutil crc32, md5 and fingerprint: known values, md5sum-compatible
# output, standard input, --limit, and unreadable files (one line on stderr
# each, exit status 1 at the end).
set -u
vrkutil=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail=0
check() {  # name expected actual
  if [ "$2" != "$3" ]; then
    printf 'FAIL %s\n  expected: %s\n  actual:   %s\n' "$1" "$2" "$3"
    fail=1
  fi
}

printf 123456789 > "$work/digits"
: > "$work/empty"
head -c 5000 /dev/urandom > "$work/random"
printf 'abc' > "$work/back\\slash"

check "crc32 check value" "cbf43926  $work/digits" "$("$vrkutil" crc32 "$work/digits")"
check "md5 like md5sum" "$(cd "$work" && md5sum digits empty random)" "$(cd "$work" && "$vrkutil" md5 digits empty random)"
check "md5 escaped name" "$(cd "$work" && md5sum 'back\slash')" "$(cd "$work" && "$vrkutil" md5 'back\slash')"
check "md5 stdin" "$(md5sum < "$work/random")" "$("$vrkutil" md5 - < "$work/random")"
check "md5 limit" "$(head -c 100 "$work/random" | md5sum | cut -c1-32)" "$("$vrkutil" md5 --limit 100 "$work/random" | cut -c1-32)"

out=$("$vrkutil" fingerprint --key 0x2a "$work/digits")
check "fingerprint lines" 39 "$(echo "$out" | wc -l)"
check "fingerprint key" "   0  0000002a  key" "$(echo "$out" | sed -n 2p)"
# "123456789" zero-padded to 64 bytes, CRC register from 0 (zero bytes leave
# a zero register unchanged, so padding only shifts it).
check "fingerprint block 0" "$(python3 -c 'import zlib; print("%08x" % (zlib.crc32(b"123456789" + bytes(55), 0xFFFFFFFF) ^ 0xFFFFFFFF))')" \
      "$(echo "$out" | sed -n 3p | awk '{print $2}')"
check "fingerprint block 2 not computed" "--------" "$(echo "$out" | sed -n 5p | awk '{print $2}')"

"$vrkutil" crc32 "$work/digits" "$work/missing" "$work/also-missing" > "$work/out" 2> "$work/err"
check "crc32 missing status" 1 "$?"
check "crc32 missing stderr lines" 2 "$(wc -l < "$work/err")"
check "crc32 still prints the readable file" "cbf43926  $work/digits" "$(cat "$work/out")"
"$vrkutil" fingerprint "$work" > /dev/null 2>&1
check "fingerprint directory status" 1 "$?"
"$vrkutil" md5 --limit x "$work/digits" > /dev/null 2>&1
check "md5 bad limit status" 2 "$?"

[ $fail -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $fail
