#!/usr/bin/env bash
# The package as a user receives it: CPack makes the .deb from this build tree, dpkg -x unpacks
# it into a scratch root, and what a user relies on is checked there.
#   check_deb.sh <build dir>       exit 77 (skipped) without dpkg-deb and dpkg-shlibdeps
set -euo pipefail
command -v dpkg-deb >/dev/null && command -v dpkg-shlibdeps >/dev/null || { echo "no dpkg-deb: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack --config "$1/CPackConfig.cmake" -B "$work" >/dev/null
deb=$(echo "$work"/varoft_*.deb)
root=$work/root
dpkg-deb -x "$deb" "$root"

# Exactly these files: the loopback desktop stays out of the package.
files=$(cd "$root" && find . -type f | sort | tr '\n' ' ')
[ "$files" = "./usr/bin/varoft ./usr/share/bash-completion/completions/varoft \
./usr/share/doc/varoft/changelog.Debian.gz ./usr/share/doc/varoft/copyright ./usr/share/man/man1/varoft.1.gz " ] ||
  fail "package holds: $files"
dpkg-deb -f "$deb" Depends | grep -q 'libxcb1' || fail "Depends lacks libxcb1: $(dpkg-deb -f "$deb" Depends)"
"$root/usr/bin/varoft" --version | grep -q '^varoft    Version 12\.5\.3' || fail "the packaged varoft does not run"

man=$(zcat "$root/usr/share/man/man1/varoft.1.gz")
for section in NAME SYNOPSIS OPERATIONS OPTIONS 'EXIT STATUS' ENVIRONMENT FILES EXAMPLES; do
  grep -q "^\.SH $section\$" <<<"$man" || fail "man page lacks $section"
done
if command -v groff >/dev/null; then
  problems=$(groff -man -ww -z <<<"$man" 2>&1) && [ -z "$problems" ] || fail "man page: $problems"
fi

completion=$(bash -c 'source "$1"; COMP_WORDS=(varoft -ge); COMP_CWORD=1; _varoft; echo "${COMPREPLY[*]}"' _ \
  "$root/usr/share/bash-completion/completions/varoft")
[ "$completion" = "-get -getd" ] || fail "completion of -ge gives: $completion"
echo "ok: $files"
