#!/usr/bin/env bash
# RSA-2048 side by side: create-identity rsa-2048 beside `openssl req -x509 -newkey rsa:2048`
# (both make a key and a self-signed certificate), and RSA-2048 signatures per second
# (CKM_SHA256_RSA_PKCS) through the keyloft module beside SoftHSM2, and, in the TPM, beside
# tpm2-pkcs11 on the same software TPM and resource manager. Builds nothing: point it at a
# Release build configured with -DKEYLOFT_BENCH=ON.
#
# Usage: bench/rsa.sh [BUILD_DIR] [harness options, e.g. --seconds 5]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-build-release}
shift || true
[[ $build = /* ]] || build=$root/$build
keyloft=$build/keyloft
module=$build/pkcs11/libkeyloft-pkcs11.so
harness=${PKCS11_SIGN:-$build/bench/pkcs11_sign}
softhsm=/usr/lib/softhsm/libsofthsm2.so
tpm2_module=$(find /usr/lib -name libtpm2_pkcs11.so.1 -print -quit)
for file in "$keyloft" "$module" "$harness" "$softhsm" "$tpm2_module"; do
    [[ -e $file ]] || { echo "missing $file" >&2; exit 1; }
done

work=$(mktemp -d)
pids=()
cleanup() {
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2> /dev/null || true; done
    wait 2> /dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

while IFS= read -r name; do unset "$name"; done < <(compgen -e | grep '^XDG_' || true)
export HOME=$work/home XDG_DATA_HOME=$work/home/data LC_ALL=C.UTF-8
export SOFTHSM2_CONF=$work/softhsm2.conf KEYLOFT_KEY_PROCESSOR=soft
mkdir -p "$XDG_DATA_HOME" "$work/tokens"
printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
    "$work/tokens" > "$SOFTHSM2_CONF"

# Median milliseconds of nine runs of the command, each given its run number.
median_ms() {
    local i start end times=()
    for ((i = 0; i < 9; i++)); do
        start=$(date +%s%N)
        "$@" "$i" > /dev/null 2>&1
        end=$(date +%s%N)
        times+=($(((end - start) / 1000)))
    done
    printf '%s\n' "${times[@]}" | sort -n | sed -n 5p | awk '{ printf "%.1f", $1 / 1000 }'
}
keyloft_create() { "$keyloft" create-identity -l "r$1" -k rsa-2048 -CN "r$1"; }
openssl_req() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/k$1.pem" -out "$work/c$1.pem" \
        -subj "/CN=r$1" -days 365
}
keyloft_ms=$(median_ms keyloft_create)
openssl_ms=$(median_ms openssl_req)

"$keyloft" create-identity -l bench-rsa -k rsa-2048 -CN bench-rsa > /dev/null
"$keyloft" create-identity -l bench-rsa-ne -k rsa-2048-ne -CN bench-rsa-ne > /dev/null
softhsm2-util --init-token --free --label bench --pin 1234 --so-pin 4321 > /dev/null
pkcs11-tool --module "$softhsm" --login --pin 1234 --keypairgen --key-type rsa:2048 \
    --label bench-rsa > /dev/null 2>&1

# A software TPM behind a private tpm2-abrmd.
# shellcheck source=bench/software_tpm.sh
source "$root/bench/software_tpm.sh"
start_software_tpm
KEYLOFT_KEY_PROCESSOR=tpm KEYLOFT_TCTI=$tcti "$keyloft" create-identity -l bench-tpm -k rsa-2048-ne \
    -CN bench-tpm > /dev/null
export TPM2_PKCS11_STORE=$work/tpm2-store TPM2_PKCS11_TCTI=$tcti TPM2TOOLS_TCTI=$tcti
export TSS2_LOG=all+NONE TPM2_PKCS11_LOG_LEVEL=0
tpm2_ptool init --path "$TPM2_PKCS11_STORE" > /dev/null
tpm2_ptool addtoken --pid=1 --label=bench --sopin=4321 --userpin=1234 \
    --path "$TPM2_PKCS11_STORE" > /dev/null
tpm2_ptool addkey --algorithm=rsa2048 --label=bench --key-label=bench-rsa --userpin=1234 \
    --path "$TPM2_PKCS11_STORE" > /dev/null

# shellcheck source=bench/sign_rows.sh
source "$root/bench/sign_rows.sh"
wrapped=$("$harness" "$module" bench-rsa "$@")
bound=$("$harness" "$module" bench-rsa-ne "$@")
softhsm_line=$("$harness" "$softhsm" bench-rsa --pin 1234 "$@")
tpm=$(KEYLOFT_KEY_PROCESSOR=tpm KEYLOFT_TCTI=$tcti "$harness" "$module" bench-tpm "$@")
tpm2_pkcs11=$("$harness" "$tpm2_module" bench-rsa --pin 1234 "$@")
openssl_sign=$(openssl speed -seconds 3 rsa2048 2>/dev/null | awk '/^rsa 2048 bits/ { print $(NF - 1) }')

printf '%-34s %10s\n' 'key and self-signed certificate' 'median ms'
printf '%-34s %10s\n' 'keyloft create-identity rsa-2048' "$keyloft_ms"
printf '%-34s %10s\n' 'openssl req -x509 -newkey rsa:2048' "$openssl_ms"
echo
# µ is two bytes: one more column of width keeps the header aligned.
printf '%-34s %14s %11s %11s\n' key signatures/s 'p50 µs' 'p99 µs'
rows 34 "keyloft rsa-2048 (wrapped)" "$wrapped"
rows 34 "keyloft rsa-2048-ne (soft)" "$bound"
rows 34 "SoftHSM2 rsa-2048" "$softhsm_line"
rows 34 "keyloft rsa-2048-ne (tpm)" "$tpm"
rows 34 "tpm2-pkcs11 rsa-2048 (same TPM)" "$tpm2_pkcs11"
printf '%-34s %14s %10s %10s\n' "openssl speed rsa2048 (ceiling)" "$openssl_sign" - -
