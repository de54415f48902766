#!/usr/bin/env bash
# Fresh Debian 12 machine: install what keyloft needs, build it, install it on PATH and its
# PKCS#11 module where p11-kit finds it, put a demo identity on the card and show the card as the
# tool and as PKCS#11 applications see it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEYLOFT_TESTS=OFF
cmake --build build -j"$(nproc)"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
$sudo cmake --install build --prefix /usr/local

keyloft create-identity -l "Demo $(date +%F)" -k p-256 -CN "Demo User" -E demo@example.com
keyloft list-identities

# The install registered the module with p11-kit; applications see the card through it.
p11-kit list-modules | awk '/^[^ ]/ { shown = /^keyloft:/ } shown { print; found = 1 }
                            END { exit !found }'
pkcs11-tool --module /usr/local/lib/keyloft/libkeyloft-pkcs11.so -O
