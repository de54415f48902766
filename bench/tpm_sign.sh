#!/usr/bin/env bash
# Raw ECDSA P-256 signatures per second through PKCS#11 with keys in a TPM: the keyloft module
# with a bound key made by the soft and by the tpm key processor, beside the tpm2-pkcs11 module
# with a key in the same TPM, both through tpm2-abrmd; then keyloft straight on the TPM. And the
# time to make one P-256 TPM key: `keyloft create-identity -k p-256-ne` beside
# `tpm2_ptool addkey`. The TPM is a swtpm, with tpm2-abrmd in front of it on a private D-Bus, so
# the figures measure the software path to a fast TPM; a hardware TPM signs in tens of
# milliseconds and sets its own ceiling. Builds nothing: point it at a Release build configured
# with -DKEYLOFT_BENCH=ON.
#
# Usage: bench/tpm_sign.sh [BUILD_DIR] [harness options, e.g. --seconds 5 --threads 2]
#   BUILD_DIR defaults to build-release; PKCS11_SIGN overrides the harness binary.
#   Needs swtpm, tpm2-abrmd, libtss2-tcti-tabrmd0, dbus-daemon, libtpm2-pkcs11-1 and
#   libtpm2-pkcs11-tools (tpm2_ptool).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-build-release}
shift || true
[[ $build = /* ]] || build=$root/$build
keyloft=$build/keyloft
module=$build/pkcs11/libkeyloft-pkcs11.so
harness=${PKCS11_SIGN:-$build/bench/pkcs11_sign}
tpm2_module=/usr/lib/x86_64-linux-gnu/pkcs11/libtpm2_pkcs11.so
export PATH=$PATH:/usr/sbin:/sbin
for file in "$keyloft" "$module" "$harness" "$tpm2_module"; do
    [[ -e $file ]] || { echo "missing $file" >&2; exit 1; }
done
for tool in swtpm tpm2-abrmd dbus-daemon tpm2_ptool; do
    command -v "$tool" > /dev/null || { echo "missing $tool" >&2; exit 1; }
done

work=$(mktemp -d)
pids=()
cleanup() {
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2> /dev/null || true; done
    wait 2> /dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# A private card for the tool and the module, and a private store for tpm2-pkcs11.
while IFS= read -r name; do unset "$name"; done < <(compgen -e | grep '^XDG_' || true)
export HOME=$work/home XDG_DATA_HOME=$work/home/data LC_ALL=C.UTF-8
mkdir -p "$XDG_DATA_HOME" "$work/state" "$work/tpm2-store"

# shellcheck source=bench/software_tpm.sh
source "$root/bench/software_tpm.sh"
start_software_tpm

KEYLOFT_KEY_PROCESSOR=soft "$keyloft" create-identity -l bench-soft -k p-256-ne -CN bench-soft \
    > /dev/null
KEYLOFT_TCTI=$tcti "$keyloft" create-identity -l bench-tpm -k p-256-ne -CN bench-tpm > /dev/null
export TPM2_PKCS11_STORE=$work/tpm2-store TPM2_PKCS11_TCTI=$tcti TPM2TOOLS_TCTI=$tcti
export TSS2_LOG=all+NONE TPM2_PKCS11_LOG_LEVEL=0
tpm2_ptool init --path "$TPM2_PKCS11_STORE" > /dev/null
tpm2_ptool addtoken --pid=1 --label=bench --sopin=4321 --userpin=1234 \
    --path "$TPM2_PKCS11_STORE" > /dev/null
tpm2_ptool addkey --algorithm=ecc256 --label=bench --key-label=bench-p256 --userpin=1234 \
    --path "$TPM2_PKCS11_STORE" > /dev/null

# Milliseconds per run of the command, the mean of a few, each with its own label.
creation_ms() {
    local runs=5 start end i
    start=$(date +%s%N)
    for ((i = 0; i < runs; i++)); do "$@" "made$i" > /dev/null; done
    end=$(date +%s%N)
    echo $(((end - start) / runs / 1000000))
}
keyloft_create() {
    KEYLOFT_TCTI=$tcti "$keyloft" create-identity -l "$1" -k p-256-ne -CN "$1"
}
ptool_addkey() {
    tpm2_ptool addkey --algorithm=ecc256 --label=bench --key-label="$1" --userpin=1234 \
        --path "$TPM2_PKCS11_STORE"
}
keyloft_create_ms=$(creation_ms keyloft_create)
ptool_addkey_ms=$(creation_ms ptool_addkey)

# shellcheck source=bench/sign_rows.sh
source "$root/bench/sign_rows.sh"

soft=$("$harness" "$module" bench-soft "$@")
tpm=$(KEYLOFT_TCTI=$tcti "$harness" "$module" bench-tpm "$@")
tpm2_pkcs11=$("$harness" "$tpm2_module" bench-p256 --pin 1234 "$@")
# The simulator serves one client at a time: the resource manager steps aside.
kill "$abrmd"
wait "$abrmd" 2> /dev/null || true
direct=$(KEYLOFT_TCTI=swtpm:host=127.0.0.1,port=$port "$harness" "$module" bench-tpm "$@")

# µ is two bytes: one more column of width keeps the header aligned.
printf '%-30s %14s %11s %11s\n' key signatures/s 'p50 µs' 'p99 µs'
rows 30 "keyloft p-256-ne (soft)" "$soft"
rows 30 "keyloft p-256-ne (tpm)" "$tpm"
rows 30 "tpm2-pkcs11 p-256 (same TPM)" "$tpm2_pkcs11"
rows 30 "keyloft p-256-ne (tpm, direct)" "$direct"
echo
printf '%-30s %14s\n' 'one P-256 TPM key' 'ms'
printf '%-30s %14s\n' 'keyloft create-identity' "$keyloft_create_ms"
printf '%-30s %14s\n' 'tpm2_ptool addkey' "$ptool_addkey_ms"
