// The path of an imported certificate file: PEM text to DER, DER to a certificate and its
// public-key hash. Any text ends in bytes or nothing, and any bytes in a hash or the tool's error;
// where the certificate gives a key, the key's hash is that hash.

#include <cstdlib>
#include <string_view>

#include "base/error.hpp"
#include "card/identity_key.hpp"
#include "card/identity_lookup.hpp"
#include "x509/pem.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto der = keyloft::x509::certificateFromPem(text);
    if (!der) return 0;
    try {
        const keyloft::Bytes hash = keyloft::card::certificatePublicKeyHash(*der);
        if (hash.size() != 20) std::abort();
        // A key item of the certificate names the identity its certificate item names.
        const auto key = keyloft::card::identityKeyOf(*der);
        if (key && key->publicKeyHash != hash) std::abort();
    } catch (const keyloft::KeyloftError& error) {
        if (error.errorCase() != keyloft::KeyloftError::Case::genericError) std::abort();
    }
    return 0;
}
