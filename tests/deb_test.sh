#!/usr/bin/env bash
# The Debian package of a build ($1): scripts/make_deb.sh builds it, lintian
# finds no error in it, `apt-get install ./quorvel_*.deb` installs it without
# removing anything, the installed quorvel runs and its manual page, completion
# and user unit are in place, and `apt-get remove` takes every file away again.
# Exit 77 (skipped) where this cannot be tried without harm: not root, no
# apt-get or dpkg-shlibdeps, or a quorvel package already installed (it is
# someone's, and stays).
set -euo pipefail

build=${1:?usage: deb_test.sh BUILD_DIR}
here=$(cd "$(dirname "$0")/.." && pwd)
if [ "$(id -u)" -ne 0 ]; then echo "skipped: installing a package needs root"; exit 77; fi
for tool in apt-get dpkg-deb dpkg-shlibdeps; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed (dpkg-dev, apt)"; exit 77; }
done
if dpkg-query -W -f='${Status}' quorvel 2>/dev/null | grep -q 'ok installed'; then
  echo "skipped: a quorvel package is already installed on this machine; it is left alone"
  exit 77
fi

work=$(mktemp -d)
installed=0
cleanup() {
  if [ "$installed" = 1 ]; then apt-get remove -y -qq quorvel >/dev/null 2>&1 || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

package=$(bash "$here/scripts/make_deb.sh" "$build" "$work")
echo "built $(basename "$package")"

if command -v lintian >/dev/null; then
  # Root is fine for a package that is only read.
  report=$(lintian --allow-root "$package" 2>&1 || true)
  echo "lintian: ${report:-no tags}"
  if grep -q '^E: ' <<<"$report"; then fail "lintian reports errors"; fi
else
  echo "lintian is not installed: the package was not checked by it"
fi

export DEBIAN_FRONTEND=noninteractive
if ! output=$(apt-get install -y --no-remove --no-install-recommends "$package" 2>&1); then
  echo "$output"
  fail "apt-get install refused the package"
else
  installed=1
  grep -q '^Remv \|^Removing ' <<<"$output" && fail "installing removed a package: $output"
fi

if [ "$installed" = 1 ]; then
  /usr/bin/quorvel --help | grep -q '^usage: quorvel' || fail "the installed quorvel does not answer --help"
  man -w quorvel >/dev/null 2>&1 || fail "man does not find quorvel(1)"
  man -w quorvelfs >/dev/null 2>&1 || fail "man does not find quorvelfs(1)"
  [ -f /usr/share/bash-completion/completions/quorvel ] || fail "no bash completion"
  grep -qx 'ExecStart=/usr/bin/quorvel watch' /usr/lib/systemd/user/quorvel-watch.service ||
    fail "the user unit does not run /usr/bin/quorvel watch"
  files=$(dpkg -L quorvel | while read -r path; do [ -f "$path" ] && echo "$path"; done || true)

  # Removing takes this package only, and every file it brought.
  would=$(apt-get -s remove quorvel | sed -n 's/^Remv \([^ ]*\).*/\1/p' | tr '\n' ' ')
  [ "$would" = "quorvel " ] || fail "removing quorvel would remove: $would"
  apt-get remove -y -qq quorvel >/dev/null 2>&1 || fail "apt-get remove failed"
  installed=0
  for path in $files; do [ ! -e "$path" ] || fail "$path is left after removal"; done
  status=$(dpkg-query -W -f='${db:Status-Abbrev}' quorvel 2>/dev/null || true)
  [[ -z "$status" || "$status" == un* ]] || fail "dpkg still lists quorvel after removal: $status"
fi

echo "deb: $failures failed"
[ "$failures" -eq 0 ]
