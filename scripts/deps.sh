#!/usr/bin/env bash
# Installs what the build and tests need on Debian 12 (x86-64), idempotently:
# nothing is fetched when every package of scripts/packages.txt (and, with
# --bench, scripts/packages-bench.txt) is already installed. A failing index
# refresh is a warning; only packages that cannot be installed are an error.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=apt.sh
. "$here/apt.sh"
lists=("$here/packages.txt")
if [ "${1:-}" = "--bench" ] && [ -f "$here/packages-bench.txt" ]; then
  lists+=("$here/packages-bench.txt")
fi

packages=()
for list in "${lists[@]}"; do
  while read -r pkg _; do
    case "$pkg" in ''|'#'*) continue ;; esac
    packages+=("$pkg")
  done < "$list"
done
apt_install "${packages[@]}"
