#!/usr/bin/env bash
# Installs what the build and tests need on Debian 12 (x86-64), idempotently:
# nothing is fetched when every package of scripts/packages.txt (and, with
# --bench, scripts/packages-bench.txt) is already installed.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
lists=("$here/packages.txt")
if [ "${1:-}" = "--bench" ] && [ -f "$here/packages-bench.txt" ]; then
  lists+=("$here/packages-bench.txt")
fi

sudo=""
if [ "$(id -u)" != 0 ]; then sudo="sudo"; fi

missing=()
for list in "${lists[@]}"; do
  while read -r pkg; do
    case "$pkg" in ''|'#'*) continue ;; esac
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done < "$list"
done
[ ${#missing[@]} -eq 0 ] && exit 0

if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $sudo dpkg --add-architecture i386
fi
echo "deps: installing ${missing[*]}" >&2
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
