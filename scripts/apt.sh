# Shell functions for installing Debian packages, sourced by the set-up
# scripts. A package archive is often half-synchronised (one index of many
# has the wrong size for a while); every package usually still installs from
# the indexes that did download, so a failing `apt-get update` is only a
# warning. Only a failing install stops the set-up.

apt_sudo=""
if [ "$(id -u)" != 0 ]; then apt_sudo="sudo"; fi

# apt_refresh: refreshes the package indexes; a failure is reported in one
# line on stderr and otherwise ignored.
apt_refresh() {
  local log
  log=$(mktemp)
  # apt-get update exits 0 on some index failures and 100 on others; both
  # leave "E:" lines, which are what a user must see.
  if ! $apt_sudo apt-get update -qq >"$log" 2>&1 || grep -q '^E:' "$log"; then
    local why
    why=$(grep -m1 '^E:' "$log" | cut -c1-160)
    echo "deps: warning: apt-get update failed (${why:-exit status non-zero}); installing from the indexes at hand" >&2
  fi
  rm -f "$log"
}

# apt_missing PKG...: prints the packages that are not installed.
apt_missing() {
  local pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || echo "$pkg"
  done
}

# apt_install PKG...: installs the packages not yet installed, quietly when
# none is missing. Retries once after a second index refresh; a final
# failure names the packages that could not be had and returns 1.
apt_install() {
  local missing
  mapfile -t missing < <(apt_missing "$@")
  [ ${#missing[@]} -eq 0 ] && return 0
  case " ${missing[*]}" in
    *:i386*)
      dpkg --print-foreign-architectures | grep -qx i386 || $apt_sudo dpkg --add-architecture i386 ;;
  esac
  echo "deps: installing ${missing[*]}" >&2
  local try err
  err=$(mktemp)
  for try in 1 2; do
    apt_refresh
    if DEBIAN_FRONTEND=noninteractive $apt_sudo apt-get install -y -qq --no-install-recommends \
         "${missing[@]}" >/dev/null 2>"$err"; then
      rm -f "$err"
      return 0
    fi
  done
  mapfile -t missing < <(apt_missing "${missing[@]}")
  echo "deps: error: could not install ${missing[*]:-the packages} ($(grep -m1 '^E:' "$err" | cut -c1-200))" >&2
  rm -f "$err"
  return 1
}
