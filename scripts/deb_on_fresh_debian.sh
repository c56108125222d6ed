#!/usr/bin/env bash
# The Debian package of a build ($1) on a Debian 12 that has nothing else:
# debootstrap makes a minimal bookworm in a temporary folder (or uses the one
# given as $2), the package is installed there with apt-get (which fetches
# its dependencies), the installed quorvel answers --help and its files are
# in place, and `apt-get remove` takes them all away again. Needs root,
# debootstrap and a reachable Debian mirror (DEBIAN_MIRROR, by default the
# one in /etc/apt/sources.list.d/debian.sources or deb.debian.org).
# Usage: scripts/deb_on_fresh_debian.sh BUILD_DIR [EXISTING_CHROOT]
set -euo pipefail

build=${1:?usage: deb_on_fresh_debian.sh BUILD_DIR [EXISTING_CHROOT]}
here=$(cd "$(dirname "$0")/.." && pwd)
[ "$(id -u)" -eq 0 ] || { echo "needs root (debootstrap, chroot)" >&2; exit 1; }
command -v debootstrap >/dev/null || { echo "debootstrap is not installed" >&2; exit 1; }

mirror=${DEBIAN_MIRROR:-$(awk '/^URIs:/ { print $2; exit }' /etc/apt/sources.list.d/debian.sources 2>/dev/null || true)}
mirror=${mirror:-http://deb.debian.org/debian}
root=${2:-}
made=0
mounted=()
cleanup() {
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do umount -l "${mounted[i]}" 2>/dev/null || true; done
  if [ "$made" = 1 ]; then rm -rf "$root"; fi
}
trap cleanup EXIT
if [ -z "$root" ]; then
  root=$(mktemp -d /tmp/quorvel-fresh-debian-XXXXXX)
  made=1
  echo "debootstrap --variant=minbase bookworm $root $mirror"
  debootstrap --variant=minbase bookworm "$root" "$mirror" > "$root.debootstrap.log" 2>&1 ||
    { tail -20 "$root.debootstrap.log" >&2; exit 1; }
fi
for fs in proc sys dev; do mount --bind "/$fs" "$root/$fs"; mounted+=("$root/$fs"); done
cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true

package=$(bash "$here/scripts/make_deb.sh" "$build" "$root/tmp")
name=$(basename "$package")
echo "built $name"
in_root() { chroot "$root" env DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }

in_root apt-get update -qq
in_root dpkg-query -W -f='${Package}\n' | sort > "$root/tmp/before.list"
in_root apt-get install -y --no-install-recommends "/tmp/$name" > "$root/tmp/install.log" 2>&1 ||
  { cat "$root/tmp/install.log" >&2; exit 1; }
echo "installed: $(grep -c '^Setting up ' "$root/tmp/install.log") packages set up, quorvel among them"
in_root /usr/bin/quorvel --help | head -1
for path in /usr/bin/quorvel /usr/bin/quorvelfs /usr/share/man/man1/quorvel.1.gz \
            /usr/share/bash-completion/completions/quorvel /usr/lib/systemd/user/quorvel-watch.service; do
  [ -e "$root$path" ] || { echo "missing after install: $path" >&2; exit 1; }
done
files=$(in_root dpkg -L quorvel | while read -r path; do [ -f "$root$path" ] && echo "$path"; done || true)
in_root apt-get remove -y quorvel > "$root/tmp/remove.log" 2>&1 || { cat "$root/tmp/remove.log" >&2; exit 1; }
left=0
while read -r path; do [ -n "$path" ] && [ -e "$root$path" ] && { echo "left after remove: $path"; left=1; }; done <<<"$files"
[ "$left" = 0 ] || exit 1
echo "removed: every one of its $(wc -l <<<"$files") files is gone"
in_root dpkg-query -W -f='${Package}\n' | sort > "$root/tmp/after.list"
echo "packages the install added that stay (its dependencies): $(comm -13 "$root/tmp/before.list" "$root/tmp/after.list" | wc -l)"
