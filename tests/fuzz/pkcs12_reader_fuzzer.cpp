// Whatever the file, reading it as PKCS#12 gives identities, nothing, or a platform error for a
// key the card cannot hold; every identity's key can be sealed (it has an external form).

#include <cstdlib>

#include "base/error.hpp"
#include "platform/pkcs12_import/pkcs12_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const auto identities = keyloft::platform::pkcs12_import::readPkcs12Identities(
            keyloft::ByteView(data, size), "test");
        if (!identities) return 0;
        for (const auto& identity : *identities) {
            if (identity.certificate.empty() || identity.key.externalRepresentation().empty())
                std::abort();
        }
    } catch (const keyloft::PlatformError&) {
    }
    return 0;
}
