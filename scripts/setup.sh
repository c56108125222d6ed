#!/usr/bin/env bash
# Installs the Debian packages Quorvel builds, tests and demos with.
# Safe to run again: apt-get skips what is already there.
#
# Installing never removes: every install runs with --no-remove, so apt-get
# refuses (and this script fails, saying so) rather than take away a package
# the machine already has. That is why the FUSE tools are chosen here:
# Debian's `fuse` (FUSE 2's tools) breaks `fuse3`, which desktops depend on
# (flatpak, gvfs-fuse, sshfs, ntfs-3g), so `fuse3` is installed only where the
# machine has neither; a machine that keeps `fuse` keeps it, and libfuse 3
# mounts there too (as root it needs no fusermount3).
set -euo pipefail

packages=(
  build-essential cmake pkg-config g++ git
  libfuse3-dev
  libimobiledevice-dev libplist-dev libusbmuxd-dev
  libsqlite3-dev sqlite3 libutf8proc-dev libjpeg-dev libssl-dev
  libheif-dev libturbojpeg0-dev libheif-examples libimage-exiftool-perl file
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libimobiledevice-utils ifuse fio rsync stress-ng
  nlohmann-json3-dev libnotify-dev dbus
  xvfb thunar imagemagick tesseract-ocr x11-utils
  clang
  dpkg-dev lintian man-db systemd
)

# QUORVEL_SETUP_SIMULATE=1 shows what apt-get would do and changes nothing;
# with it, QUORVEL_SETUP_ADMINDIR=DIR takes the installed packages from
# DIR/status instead of this machine's, to check what setup would do on
# another kind of machine (the tests do this).
simulate=()
dpkg_admin=()
apt_status=()
if [ "${QUORVEL_SETUP_SIMULATE:-0}" = 1 ]; then
  simulate=(-s)
  if [ -n "${QUORVEL_SETUP_ADMINDIR:-}" ]; then
    dpkg_admin=(--admindir="$QUORVEL_SETUP_ADMINDIR")
    apt_status=(-o "Dir::State::status=$QUORVEL_SETUP_ADMINDIR/status")
  fi
fi

installed() {
  dpkg-query "${dpkg_admin[@]}" -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

# ifuse needs "fuse", which either tool package provides.
if ! installed fuse3 && ! installed fuse; then
  packages=(fuse3 "${packages[@]}")
fi

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages already installed"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

echo "setup: installing ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
export DEBIAN_FRONTEND=noninteractive
# A simulation reads the package lists as they are, when there are some.
if [ "${#simulate[@]}" -eq 0 ] || ! compgen -G "/var/lib/apt/lists/*_Packages*" >/dev/null; then
  $SUDO apt-get update -qq
fi
if ! $SUDO apt-get install -y -qq --no-remove --no-install-recommends "${simulate[@]}" "${apt_status[@]}" "${missing[@]}" \
    >"$log" 2>&1; then
  cat "$log" >&2
  echo "setup: apt-get could not install these without removing a package this machine has;" >&2
  echo "setup: nothing was changed. Install them by hand, choosing what to keep." >&2
  exit 1
fi
if [ "${#simulate[@]}" -ne 0 ]; then cat "$log"; fi
echo "setup: done"
