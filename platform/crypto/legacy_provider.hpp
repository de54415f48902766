#pragma once

namespace keyloft::platform::crypto {

// Loads OpenSSL's "legacy" provider (RC2, old PKCS#12 schemes) beside "default", once per process.
// Throws PlatformError when it is not installed.
void loadLegacyProvider();

}  // namespace keyloft::platform::crypto
