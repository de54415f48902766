#!/usr/bin/env bash
# Builds the Debian package keyloft_<version>_<arch>.deb into the folder given (default
# build-deb), from a fresh copy of the work tree: dpkg-buildpackage writes beside the source
# folder, and no build folder of the tests is reused. Prints the package's path last.
set -euo pipefail
cd "$(dirname "$0")/.."

out=$(realpath -m "${1:-build-deb}")
rm -rf "$out/keyloft"
mkdir -p "$out/keyloft"
git ls-files -z --cached --others --exclude-standard |
    tar --null -T - --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$out/keyloft"

version=$(dpkg-parsechangelog -l debian/changelog -S Version)
(cd "$out/keyloft" && dpkg-buildpackage -us -uc -b -j"$(nproc)" >"$out/build.log" 2>&1) || {
    tail -n 50 "$out/build.log" >&2
    echo "dpkg-buildpackage failed; the whole log is $out/build.log" >&2
    exit 1
}
rm -rf "$out/keyloft"
echo "$out/keyloft_${version}_$(dpkg --print-architecture).deb"
