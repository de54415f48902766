#!/usr/bin/env bash
# Fresh Debian 12 machine: install what keyloft needs, build it, install it on PATH, put a demo
# identity on the card and list the card.
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
