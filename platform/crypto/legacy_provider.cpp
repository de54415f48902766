#include "platform/crypto/legacy_provider.hpp"

#include <openssl/provider.h>

#include <memory>

#include "base/error.hpp"
#include "platform/crypto/openssl_handles.hpp"

namespace keyloft::platform::crypto {
namespace {

using openssl::Provider;

// Loading "legacy" explicitly stops the implicit loading of "default", so both are loaded; they
// stay for the life of the process and are unloaded at its end.
struct Providers {
    Provider legacy{OSSL_PROVIDER_load(nullptr, "legacy")};
    Provider standard{OSSL_PROVIDER_load(nullptr, "default")};
};

}  // namespace

void loadLegacyProvider() {
    static const Providers providers;
    if (!providers.legacy || !providers.standard)
        throw PlatformError("OpenSSL's legacy provider is not available");
}

}  // namespace keyloft::platform::crypto
