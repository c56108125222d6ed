#!/usr/bin/env bash
# `cmake --install` of a build (given as $1) places what a user and a package
# need: the two programs, both manual pages (rendered by man without a
# warning, naming every command and option the programs have), bash completion
# that completes commands and options, and the user unit naming the installed
# quorvel (which systemd-analyze accepts, where it is installed).
set -euo pipefail

build=${1:?usage: install_test.sh BUILD_DIR}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Into a staging root, as a package build does.
DESTDIR="$work/root" cmake --install "$build" --prefix /usr >/dev/null
root="$work/root/usr"
for file in bin/quorvel bin/quorvelfs share/man/man1/quorvel.1 share/man/man1/quorvelfs.1 \
            share/bash-completion/completions/quorvel lib/systemd/user/quorvel-watch.service; do
  [ -s "$root/$file" ] || fail "$file was not installed"
done
[ -x "$root/bin/quorvel" ] && [ -x "$root/bin/quorvelfs" ] || fail "the programs are not both executable"
grep -qx 'ExecStart=/usr/bin/quorvel watch' "$root/lib/systemd/user/quorvel-watch.service" ||
  fail "the unit does not run /usr/bin/quorvel watch: $(grep ExecStart "$root/lib/systemd/user/quorvel-watch.service")"

# The manual pages render cleanly and document what the program offers: each
# command `quorvel --help` lists, and each long option of its own --help.
quorvel="$root/bin/quorvel"
if command -v man >/dev/null; then
  for page in quorvel.1 quorvelfs.1; do
    warnings=$(MANWIDTH=80 man --warnings -l "$root/share/man/man1/$page" 2>&1 >/dev/null || echo "man failed")
    [ -z "$warnings" ] || fail "man warns about $page: $warnings"
  done
  manual=$(MANWIDTH=200 man -l "$root/share/man/man1/quorvel.1" 2>/dev/null)
else
  echo "man is not installed: the pages were not rendered; their source is searched instead"
  manual=$(sed 's/\\-/-/g; s/\\f[BIR]//g' "$root/share/man/man1/quorvel.1")
fi

# Bash completion offers the same: commands, then each command's options.
complete_words() {  # complete_words WORD... : what completing the last word offers
  bash -c 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _quorvel; echo "${COMPREPLY[*]}"' \
    "$root/share/bash-completion/completions/quorvel" "$@"
}
[ "$(complete_words quorvel m)" = mount ] || fail "'quorvel m' completes to '$(complete_words quorvel m)'"
offered=" $(complete_words quorvel '') "
commands=$("$quorvel" --help | sed -n 's/^  \([a-z][a-z-]*\) .*/\1/p')
[ -n "$commands" ] || fail "quorvel --help lists no commands"
for command in $commands; do
  grep -q "quorvel $command\b" <<<"$manual" || fail "quorvel(1) does not show 'quorvel $command'"
  [[ "$offered" == *" $command "* ]] || fail "completion does not offer the command $command"
  for option in $("$quorvel" "$command" --help | head -1 | grep -o -- '--[a-z][a-z-]*' | sort -u); do
    grep -q -- "$option" <<<"$manual" || fail "quorvel(1) does not document $command $option"
    [[ " $(complete_words quorvel "$command" --) " == *" $option "* ]] ||
      fail "completion does not offer $command $option"
  done
done
[ "$(complete_words quorvel install-service --u)" = --uninstall ] ||
  fail "'quorvel install-service --u' completes to '$(complete_words quorvel install-service --u)'"

# The unit of an installation systemd can run from: the program it names exists.
cmake --install "$build" --prefix "$work/prefix" >/dev/null
if command -v systemd-analyze >/dev/null; then
  output=$(systemd-analyze verify --man=no "$work/prefix/lib/systemd/user/quorvel-watch.service" 2>&1) ||
    fail "systemd-analyze verify: $output"
else
  echo "systemd-analyze is not installed: the installed unit was not verified"
fi

echo "install: $failures failed"
[ "$failures" -eq 0 ]
