#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing keyloft needs.
set -euo pipefail

packages=(
    g++ cmake ninja-build pkg-config git clang-format
    libssl-dev libsqlite3-dev libicu-dev libplist-dev libpam0g-dev libpam-modules
    libgtest-dev libgmock-dev
    libp11-kit-dev p11-kit
    openssl openssh-client python3 python3-pytest python3-cryptography
    # Clients the PKCS#11 module is tested with.
    opensc openssh-server libengine-pkcs11-openssl python3-pykcs11 gnutls-bin libnss3-tools
    # The signing benchmark compares the module with SoftHSM2.
    softhsm2
)

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
if [ "${#missing[@]}" -gt 0 ]; then
    $sudo apt-get update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
