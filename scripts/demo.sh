#!/usr/bin/env bash
# Installs what is missing, builds everything for i386 into build/ and runs
# the main job: a short demonstration of the vrkutil tool.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)"

tool=build/bin/vrkutil
run() { echo "\$ vrkutil $*"; "$tool" "$@"; echo; }
run --version
run codepage utf-8 windows-1252 ISO-8859-1 ebcdic-cp-us
run codepage 65001 1252 28591 37 20127
