#!/usr/bin/env bash
# Builds keyloft with AddressSanitizer and UndefinedBehaviorSanitizer and runs every test:
# the unit tests and the end-to-end tests against independent tools, and the Debian package.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh
# The layers and the formatting are checked before anything is built.
scripts/check-layers.py
git ls-files '*.cpp' '*.hpp' | xargs clang-format --dry-run -Werror
build=build-test
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKEYLOFT_SANITIZE=ON \
    -DKEYLOFT_PAM_CONFDIR="$PWD/$build/pam.d"
cmake --build "$build" -j"$(nproc)"

# Browsers and agents load the module as users do, unsanitized: a Release build of it.
release=build-release
cmake -S . -B "$release" -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build "$release" -j"$(nproc)" --target keyloft-pkcs11
export KEYLOFT_PKCS11_PLAIN=$PWD/$release/pkcs11/libkeyloft-pkcs11.so

# The Debian package: built from a copy of the tree, checked by lintian, installed and removed.
scripts/test-package.sh

# The module runs on its callers' threads: its unit tests, the stress test of threads working
# while the tool changes the card among them, once more under ThreadSanitizer.
tsan=build-tsan
cmake -S . -B "$tsan" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKEYLOFT_TSAN=ON \
    -DKEYLOFT_PAM_CONFDIR="$PWD/$tsan/pam.d"
cmake --build "$tsan" -j"$(nproc)" --target test_pkcs11 keyloft
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 timeout 1200 "$tsan/tests/test_pkcs11"

# A sanitizer finding ends the process with an error, which fails the test that ran it.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
