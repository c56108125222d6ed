#!/usr/bin/env bash
# make deb: builds a Debian package of quorvel from a build folder, without a
# debian/ source tree. usage: make_deb.sh BUILD_DIR [OUTPUT_DIR]
#
# The files are those `cmake --install` places (programs stripped, manual
# pages compressed as Debian keeps them); library dependencies come from
# dpkg-shlibdeps; the control file is written here.
set -euo pipefail

build=$(cd "${1:?usage: make_deb.sh BUILD_DIR [OUTPUT_DIR]}" && pwd)
output=$(mkdir -p "${2:-.}" && cd "${2:-.}" && pwd)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
version=${QUORVEL_DEB_VERSION:-0.1.0}
arch=$(dpkg --print-architecture)

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
root="$stage/root"
umask 022
DESTDIR="$root" cmake --install "$build" --prefix /usr --strip >/dev/null

gzip -9n "$root"/usr/share/man/man1/*.1
doc="$root/usr/share/doc/quorvel"
mkdir -p "$doc"
cat > "$doc/copyright" <<COPYRIGHT
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: quorvel
Comment: built from the project's own source tree by scripts/make_deb.sh;
 the tree states no licence of its own.

Files: *
Copyright: 2026 the Quorvel developers
License: unstated
 The source tree this package was built from names no licence.
COPYRIGHT
changelog_date=$(date -R -u -d "@${SOURCE_DATE_EPOCH:-$(git -C "$source_dir" log -1 --format=%ct 2>/dev/null || date +%s)}")
cat > "$stage/changelog" <<CHANGELOG
quorvel ($version) unstable; urgency=medium

  * Built from the source tree (scripts/make_deb.sh).

 -- Quorvel developers <quorvel@users.noreply.github.com>  $changelog_date
CHANGELOG
gzip -9n -c "$stage/changelog" > "$doc/changelog.gz"

# dpkg-shlibdeps reads debian/control of a source tree: a minimal one is
# enough for it to name the libraries' packages.
mkdir -p "$stage/debian"
printf 'Source: quorvel\n\nPackage: quorvel\nArchitecture: any\n' > "$stage/debian/control"
shlibs=$(cd "$stage" && dpkg-shlibdeps -O "$root/usr/bin/quorvel" "$root/usr/bin/quorvelfs" 2>/dev/null |
         sed -n 's/^shlibs:Depends=//p')
[ -n "$shlibs" ] || { echo "make_deb: dpkg-shlibdeps found no dependencies" >&2; exit 1; }

# fusermount3 comes from fuse3, or from FUSE 2's fuse on machines that keep
# it: either satisfies the package, so installing it never takes one away.
mkdir -p "$root/DEBIAN"
cat > "$root/DEBIAN/control" <<CONTROL
Package: quorvel
Version: $version
Architecture: $arch
Maintainer: Quorvel developers <quorvel@users.noreply.github.com>
Installed-Size: $(du -sk --exclude=DEBIAN "$root" | cut -f1)
Depends: $shlibs, fuse3 | fuse
Recommends: usbmuxd
Suggests: zenity
Section: utils
Priority: optional
Description: mount an iPhone or iPad as a folder tree
 Quorvel is a FUSE file system that mounts an iPhone or iPad attached by
 USB as a folder: its media library (read-only), the documents of apps that
 share files, and its general storage, for file managers and any program.
 .
 quorvel mounts and unmounts devices by hand, or as a user service mounts
 each device as it is plugged in (quorvel install-service).
CONTROL
(cd "$root" && find usr -type f -print0 | sort -z | xargs -0 md5sum > DEBIAN/md5sums)

package="$output/quorvel_${version}_${arch}.deb"
dpkg-deb --root-owner-group -Zxz --build "$root" "$package" >/dev/null
echo "$package"
