#!/usr/bin/env bash
# Builds the Debian packages (i386) into build-deb/packages/: the library
# is configured for the prefix /usr, so that the libraries land in the i386
# multiarch folder, and CPack makes one package per install component.
# usage: scripts/package.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-deb}
bash scripts/deps.sh
cmake -S . -B "$dir" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=Release \
  -DVRK_BUILD_TESTS=OFF -DVRK_BUILD_BENCH=OFF -DVRK_WERROR=ON >/dev/null
cmake --build "$dir" -j"$(nproc)"
rm -rf "$dir/packages"
(cd "$dir" && cpack -G DEB >/dev/null)
ls -l "$dir"/packages/*.deb
