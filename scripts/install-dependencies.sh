#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing keyloft needs.
set -euo pipefail

packages=(
    g++ cmake ninja-build pkg-config git clang-format
    libssl-dev libsqlite3-dev libicu-dev libpam0g-dev libpam-modules libtss2-dev
    libgtest-dev libgmock-dev
    libp11-kit-dev p11-kit libsystemd-dev
    # The manual page, bash completion, and the Debian package with its checks.
    scdoc bash-completion man-db debhelper dpkg-dev lintian
    openssl openssh-client python3 python3-pytest python3-cryptography
    # Clients the PKCS#11 module is tested with.
    opensc openssh-server libengine-pkcs11-openssl python3-pykcs11 gnutls-bin libnss3-tools
    # The applications the card is used from, each tested with its recipe.
    firefox-esr chromium p11-kit-modules curl
    # The signing benchmark compares the module with SoftHSM2.
    softhsm2
    # The TPM tests: a simulator behind the resource manager, on a private D-Bus.
    swtpm tpm2-abrmd libtss2-tcti-tabrmd0 dbus-daemon dbus-bin
    # The presence check without a terminal: polkit on a private system bus.
    polkitd
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
