#!/usr/bin/env bash
# Builds the Debian package from a copy of the work tree (no build folder of the tests is reused),
# checks it with lintian, and, as root on a machine where keyloft is not installed yet, installs
# it, uses it as a user would, and removes it again, checking that nothing of it is left.
set -euo pipefail
cd "$(dirname "$0")/.."

# scripts/test-package.sh [keyloft_<version>_<arch>.deb]: a package built before is tested as it is.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
started=$SECONDS
if [ $# -gt 0 ]; then
    deb=$(realpath "$1")
else
    deb=$(scripts/build-package.sh "$work" | tail -n 1)
    echo "package: built $(basename "$deb") in $((SECONDS - started)) s"
fi

# Errors fail the run; warnings are shown.
changes=${deb%.deb}.changes
if [ -f "$changes" ]; then lintian --fail-on error "$changes"; else lintian --fail-on error "$deb"; fi

fail() {
    echo "package: $*" >&2
    exit 1
}
skip() {
    if [ "${CI:-}" = true ]; then fail "$*"; fi
    echo "package: install test skipped: $*"
    exit 0
}
[ "$(id -u)" -eq 0 ] || skip "it needs root"
dpkg-query -W -f='${Status}' keyloft 2>/dev/null | grep -q "install ok installed" &&
    skip "keyloft is installed on this machine already"
[ -e /usr/share/p11-kit/modules/keyloft.module ] &&
    skip "a CMake install of keyloft is registered with p11-kit"

export DEBIAN_FRONTEND=noninteractive
apt-get install -y -q "$deb" >"$work/install.log" 2>&1 || {
    cat "$work/install.log"
    fail "apt-get install failed"
}
files=$(dpkg-query -L keyloft)
conffiles=$(dpkg-query -W -f='${Conffiles}\n' keyloft | awk 'NF { print $1 }')

home="$work/home"
mkdir "$home"
export HOME="$home" XDG_DATA_HOME="$home/data" KEYLOFT_KEY_PROCESSOR=soft
[ "$(command -v keyloft)" = /usr/bin/keyloft ] || fail "keyloft is not on PATH from /usr/bin"
created=$(keyloft create-identity -l Packaged -k p-256 -CN Packaged)
[ -z "$created" ] || fail "create-identity: $created"
listed=$(keyloft list-identities)
grep -q ' Packaged ' <<<"$listed" || fail "the identity is not listed: $listed"
module="/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/pkcs11/libkeyloft-pkcs11.so"
# Other modules' complaints on stderr are theirs.
modules=$(p11-kit list-modules 2>/dev/null)
grep -qx "keyloft: $module" <<<"$modules" || fail "p11-kit does not list the module: $modules"
grep -q "token: keyloft" <<<"$modules" || fail "p11-kit does not show the card"
page=$(man -w keyloft) || fail "man -w keyloft finds no page"
[[ $page == /usr/share/man/man1/keyloft.1* ]] || fail "man -w keyloft finds $page"
for file in /etc/pam.d/keyloft /usr/share/polkit-1/actions/org.keyloft.policy \
    /usr/share/bash-completion/completions/keyloft; do
    [ -f "$file" ] || fail "$file is missing"
done

# Everything goes with remove but the configuration files, which go with purge.
left() {
    while read -r path; do
        if [ -f "$path" ]; then echo "$path"; fi
    done <<<"$1"
}
apt-get remove -y -q keyloft >"$work/remove.log" 2>&1 || fail "apt-get remove failed"
remaining=$(left "$files" | grep -vxF -f <(echo "$conffiles") || true)
[ -z "$remaining" ] || fail "left after remove: $remaining"
apt-get purge -y -q keyloft >"$work/purge.log" 2>&1 || fail "apt-get purge failed"
remaining=$(left "$files")
[ -z "$remaining" ] || fail "left after purge: $remaining"
[ -f "$XDG_DATA_HOME/keyloft/tokens.db" ] || fail "the user's card went with the package"
echo "package: installed, used and removed in $((SECONDS - started)) s"
