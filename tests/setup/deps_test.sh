#!/usr/bin/env bash
# scripts/deps.sh against a package archive that is being re-synchronised:
# fake apt-get, dpkg and dpkg-query on PATH report every package missing,
# and `apt-get update` fails as a half-synchronised mirror makes it fail.
#  - update fails, install works: exit 0, one warning line, the install ran;
#  - install fails twice: exit 1, a second update was tried, and the error
#    names the packages.
# usage: deps_test.sh SOURCE_DIR
set -uo pipefail
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "deps_test: $*" >&2; exit 1; }

mkdir -p "$work/bin"
cat >"$work/bin/apt-get" <<'FAKE'
#!/usr/bin/env bash
echo "$*" >>"$FAKE_LOG"
case "$1" in
  update)
    echo "E: Failed to fetch http://deb.debian.org/debian-security/dists/bookworm-security/main/binary-i386/Packages.xz  File has unexpected size (346968 != 366648). Mirror sync in progress?" >&2
    exit 100 ;;
  install)
    [ "$FAKE_INSTALL" = ok ] && exit 0
    echo "E: Unable to locate package ${*: -1}" >&2
    exit 100 ;;
esac
FAKE
printf '#!/bin/sh\nexit 1\n' >"$work/bin/dpkg-query"                       # nothing installed
printf '#!/bin/sh\n[ "$1" = --print-foreign-architectures ] && echo i386\nexit 0\n' >"$work/bin/dpkg"
printf '#!/bin/sh\nexec "$@"\n' >"$work/bin/sudo"                           # when not run as root
chmod +x "$work/bin/"*

run() {  # run OUTCOME: runs deps.sh with the fakes, install answering OUTCOME
  : >"$work/log"
  PATH="$work/bin:$PATH" FAKE_LOG="$work/log" FAKE_INSTALL=$1 bash "$src/scripts/deps.sh" 2>"$work/err"
}

run ok || fail "exit $? when only the index refresh failed: $(cat "$work/err")"
grep -q '^install .*g++-multilib' "$work/log" || fail "the install did not run: $(cat "$work/log")"
[ "$(grep -c warning "$work/err")" = 1 ] || fail "expected one warning line: $(cat "$work/err")"

run broken && fail "exit 0 although nothing could be installed"
[ "$(grep -c '^update' "$work/log")" = 2 ] || fail "no second index refresh before the retry"
[ "$(grep -c '^install' "$work/log")" = 2 ] || fail "the install was not retried once"
grep -q 'error: could not install .*g++-multilib' "$work/err" || fail "the error does not name the packages: $(cat "$work/err")"
echo "1 passed, 0 failed"
