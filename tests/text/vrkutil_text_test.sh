#!/usr/bin/env bash
# The text subcommands of vrkutil: outputs and exit statuses.
set -u
vrkutil=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail=0

# expect NAME STATUS OUTPUT -- COMMAND...: stdout (as hex) and exit status.
expect() {
  local name=$1 status=$2 output=$3
  shift 4
  local got rc
  got=$("$@" 2>"$tmp/err" | od -An -tx1 | tr -d ' \n')
  rc=$("$@" >/dev/null 2>&1; echo $?)
  if [ "$rc" != "$status" ] || [ "$got" != "$output" ]; then
    echo "FAIL $name: status $rc (want $status), output $got (want $output)"
    cat "$tmp/err"
    fail=1
  fi
}

printf 'caf\xe9' >"$tmp/latin1"
printf 'ab\xc3\x41cd' >"$tmp/bad"
expect "latin1 to utf-8" 0 636166c3a9 -- "$vrkutil" convert -f latin1 -t utf-8 "$tmp/latin1"
expect "code-page numbers" 0 636166c3a9 -- "$vrkutil" conv -f 28591 -t 65001 "$tmp/latin1"
expect "invalid input writes the prefix" 1 6162 -- "$vrkutil" convert -f utf-8 -t latin1 "$tmp/bad"
expect "unknown code page" 1 "" -- "$vrkutil" convert -f 12345 -t utf-8 "$tmp/latin1"
expect "missing -t" 2 "" -- "$vrkutil" convert -f utf-8 "$tmp/latin1"
"$vrkutil" convert -f utf-8 -t latin1 "$tmp/bad" 2>&1 >/dev/null | grep -q 'byte offset 2' ||
  { echo "FAIL: the message does not name byte offset 2"; fail=1; }

expect "fold keeps the Kelvin sign" 0 e284aa0a -- "$vrkutil" fold "$(printf '\xe2\x84\xaa')"
expect "fold --strict" 0 6b0a -- "$vrkutil" fold --strict "$(printf '\xe2\x84\xaa')"
expect "fold --turkic" 0 c4b10a -- "$vrkutil" fold --turkic I
expect "fold --strict malformed" 1 "" -- "$vrkutil" fold --strict "$(printf 'a\x80')"
expect "fold without text" 2 "" -- "$vrkutil" fold --strict

expect "icmp equal" 0 300a -- "$vrkutil" icmp K "$(printf '\xe2\x84\xaa')"
expect "icmp turkic" 0 300a -- "$vrkutil" icmp --turkic I "$(printf '\xc4\xb1')"
expect "icmp length first" 0 2d310a -- "$vrkutil" icmp --length-first z "$(printf '\xc3\xa0')"
expect "icmp malformed" 1 "" -- "$vrkutil" icmp "$(printf '\x80')" a
expect "icmp one text" 2 "" -- "$vrkutil" icmp a
exit $fail
