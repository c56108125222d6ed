#!/usr/bin/env bash
# Installs the Debian packages Quorvel builds, tests and demos with.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  build-essential cmake pkg-config g++ git
  libfuse-dev fuse
  libimobiledevice-dev libplist-dev libusbmuxd-dev
  libsqlite3-dev sqlite3 libutf8proc-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libimobiledevice-utils ifuse
  nlohmann-json3-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages already installed"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
