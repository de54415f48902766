#!/usr/bin/env bash
# Raw ECDSA P-256 signatures per second through the keyloft module (a wrapped and a bound key)
# beside SoftHSM2, with OpenSSL's single-thread figure as the ceiling. Builds nothing: point it
# at a Release build configured with -DKEYLOFT_BENCH=ON.
#
# Usage: bench/pkcs11_sign.sh [BUILD_DIR] [harness options, e.g. --seconds 5 --threads 2]
#   BUILD_DIR defaults to build-release; PKCS11_SIGN overrides the harness binary.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-build-release}
shift || true
[[ $build = /* ]] || build=$root/$build
keyloft=$build/keyloft
module=$build/pkcs11/libkeyloft-pkcs11.so
harness=${PKCS11_SIGN:-$build/bench/pkcs11_sign}
softhsm=/usr/lib/softhsm/libsofthsm2.so
for file in "$keyloft" "$module" "$harness" "$softhsm"; do
    [[ -e $file ]] || { echo "missing $file" >&2; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A private card for the tool and the module, and a private token for SoftHSM2.
while IFS= read -r name; do unset "$name"; done < <(compgen -e | grep '^XDG_' || true)
export HOME=$work/home XDG_DATA_HOME=$work/home/data LC_ALL=C.UTF-8
export SOFTHSM2_CONF=$work/softhsm2.conf
mkdir -p "$XDG_DATA_HOME" "$work/tokens"
printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
    "$work/tokens" > "$SOFTHSM2_CONF"

"$keyloft" create-identity -l bench-wrapped -k p-256 -CN bench-wrapped > /dev/null
"$keyloft" create-identity -l bench-bound -k p-256-ne -CN bench-bound > /dev/null
softhsm2-util --init-token --free --label bench --pin 1234 --so-pin 4321 > /dev/null
pkcs11-tool --module "$softhsm" --login --pin 1234 --keypairgen --key-type EC:prime256v1 \
    --label bench-p256 > /dev/null 2>&1

# shellcheck source=bench/sign_rows.sh
source "$root/bench/sign_rows.sh"

wrapped=$("$harness" "$module" bench-wrapped "$@")
bound=$("$harness" "$module" bench-bound "$@")
softhsm_line=$("$harness" "$softhsm" bench-p256 --pin 1234 "$@")
openssl_sign=$(openssl speed -seconds 3 ecdsap256 2>/dev/null |
    awk '/ecdsa \(nistp256\)/ { print $(NF - 1) }')

# µ is two bytes: one more column of width keeps the header aligned.
printf '%-24s %14s %11s %11s\n' key signatures/s 'p50 µs' 'p99 µs'
rows 24 "keyloft p-256 (wrapped)" "$wrapped"
rows 24 "keyloft p-256-ne (bound)" "$bound"
rows 24 "SoftHSM2 p-256" "$softhsm_line"
printf '%-24s %14s %10s %10s\n' "openssl speed (ceiling)" "$openssl_sign" - -
