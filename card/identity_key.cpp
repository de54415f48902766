#include "card/identity_key.hpp"

#include "base/certificate_reader.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::card {

std::optional<IdentityKey> identityKeyOf(ByteView certificate) {
    const auto read = readCertificate(certificate);
    auto key = read ? read->publicKey() : std::nullopt;
    if (!key) return std::nullopt;
    Bytes hash = platform::crypto::sha1(key->externalRepresentation);
    return IdentityKey{std::move(*key), std::move(hash)};
}

}  // namespace keyloft::card
