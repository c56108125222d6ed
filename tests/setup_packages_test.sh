#!/usr/bin/env bash
# Installing never removes: scripts/setup.sh, simulated against three kinds of
# machine made from this one's package database, removes nothing and picks
# the FUSE tools each needs:
#   a desktop that has fuse3 (what flatpak, gvfs-fuse, sshfs depend on),
#   an older machine that keeps FUSE 2's `fuse` package,
#   a bare machine with neither, which gets fuse3.
# Exit 77 (skipped) where there is no apt-get or dpkg database to simulate with.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
setup="$here/scripts/setup.sh"
if ! command -v apt-get >/dev/null || [ ! -r /var/lib/dpkg/status ]; then
  echo "skipped: needs apt-get and a dpkg database"
  exit 77
fi
if ! compgen -G "/var/lib/apt/lists/*_Packages*" >/dev/null; then
  echo "skipped: no apt package lists (apt-get update has not run)"
  exit 77
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The FUSE packages and what setup adds beside them are taken out of the
# copy of the database, so each simulation starts from "not installed".
ours=(fuse fuse3 libfuse2 libfuse3-3 libfuse3-dev libfuse-dev libimobiledevice-dev libplist-dev
      libusbmuxd-dev libutf8proc-dev libimobiledevice-utils ifuse nlohmann-json3-dev clang)

without_packages() {  # prints the status file without the named packages' stanzas
  awk -v names=" $* " '
    BEGIN { RS = ""; ORS = "\n\n" }
    { split($0, lines, "\n"); name = substr(lines[1], 10)
      if (index(names, " " name " ") == 0) print }' /var/lib/dpkg/status
}

installed_stanza() {  # the archive's stanza of a package, marked installed
  apt-cache show "$1" | awk 'BEGIN { RS = ""; ORS = "" } NR == 1 { print; exit }' |
    grep -v '^Description\|^ \|^Filename\|^SHA256\|^MD5sum\|^Size\|^Tag\|^Homepage' |
    sed '1a Status: install ok installed'
  printf '\n\n'
}

machine() {  # machine NAME PACKAGE... : a database with these FUSE packages installed
  mkdir -p "$work/$1"
  local name=$1; shift
  local removed=("${ours[@]}")
  # What this machine has installed on top of the FUSE packages (sshfs, say)
  # goes too, until the database is whole again.
  for _ in 1 2 3 4 5 6; do
    without_packages "${removed[@]}" > "$work/$name/status"
    for package in "$@"; do installed_stanza "$package" >> "$work/$name/status"; done
    local broken
    broken=$(apt-get -s -o "Dir::State::status=$work/$name/status" check 2>&1 |
             sed -n 's/^ \([^ ]*\) : Depends.*/\1/p' | sort -u | tr '\n' ' ' || true)
    [ -z "$broken" ] && return 0
    read -r -a more <<<"$broken"
    removed+=("${more[@]}")
  done
  echo "could not make a consistent package database for $name" >&2
  exit 1
}

failures=0
fail() { echo "FAIL $name: $*"; failures=$((failures + 1)); }
check() {  # check NAME WANT_FUSE3(yes|no)
  local name=$1 output
  if ! output=$(QUORVEL_SETUP_SIMULATE=1 QUORVEL_SETUP_ADMINDIR="$work/$1" bash "$setup" 2>&1); then
    fail "setup refused or failed:"$'\n'"$output"; return
  fi
  ! grep -q '^Remv ' <<<"$output" || fail "setup would remove: $(grep '^Remv ' <<<"$output")"
  grep -q '^Inst libfuse3-dev ' <<<"$output" && grep -q '^Inst ifuse ' <<<"$output" ||
    fail "libfuse3-dev and ifuse are not both installed:"$'\n'"$output"
  [ "$2" = no ] || grep -q '^Inst fuse3 ' <<<"$output" || fail "fuse3 is not installed where no FUSE tools are"
  [ "$2" = yes ] || ! grep -q '^Inst fuse3 \|^Inst fuse ' <<<"$output" ||
    fail "FUSE tools installed where some already are: $(grep '^Inst fuse' <<<"$output")"
  echo "ok $1: $(grep -c '^Inst ' <<<"$output") packages to install, none removed"
}

machine desktop libfuse3-3 fuse3
machine fuse2 libfuse2 fuse
machine bare
check desktop no
check fuse2 no
check bare yes

echo "$((3 - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
