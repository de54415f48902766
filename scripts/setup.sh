#!/usr/bin/env bash
# Fresh Debian 12 machine: install what keyloft needs, build the Debian package and install it
# (`apt-get remove keyloft` takes it away again), put a demo identity on the card and show the card
# as the tool and as PKCS#11 applications see it.
#
# scripts/setup.sh --cmake: a plain CMake install into /usr/local instead, for other
# distributions (install the libraries the README lists first; there is no uninstall).
set -euo pipefail
cd "$(dirname "$0")/.."

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi

if [ "${1:-}" = --cmake ]; then
    if command -v apt-get >/dev/null; then scripts/install-dependencies.sh; fi
    cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEYLOFT_TESTS=OFF
    cmake --build build -j"$(nproc)"
    $sudo cmake --install build --prefix /usr/local
    module=/usr/local/lib/keyloft/libkeyloft-pkcs11.so
else
    scripts/install-dependencies.sh
    deb=$(scripts/build-package.sh build-deb | tail -n 1)
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y "$deb"
    module=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/pkcs11/libkeyloft-pkcs11.so
fi

keyloft create-identity -l "Demo $(date +%F)" -k p-256 -CN "Demo User" -E demo@example.com
keyloft list-identities

# The install registered the module with p11-kit; applications see the card through it.
p11-kit list-modules | awk '/^[^ ]/ { shown = /^keyloft:/ } shown { print; found = 1 }
                            END { exit !found }'
pkcs11-tool --module "$module" -O
