#!/usr/bin/env bash
# Installs what is missing, builds everything for i386 and runs the whole
# test suite twice: plain, and under AddressSanitizer+UndefinedBehaviorSanitizer;
# then builds the Debian packages and inspects them.
# Build folders: build/ (plain), build-sanitize/ and build-deb/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DVRK_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure
}

echo "== plain build and tests"
run_suite build
echo "== sanitized build and tests (address, undefined)"
ASAN_OPTIONS=detect_leaks=0 run_suite build-sanitize -DVRK_SANITIZE=ON -DVRK_BUILD_BENCH=OFF
echo "== Debian packages"
bash scripts/package.sh build-deb
bash tests/install/check_debs.sh build-deb/packages
