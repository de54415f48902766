#include "card/identity_key.hpp"

#include "platform/crypto/digest.hpp"
#include "x509/certificate_reader.hpp"

namespace keyloft::card {

std::optional<IdentityKey> identityKeyOf(ByteView certificate) {
    const auto read = x509::readCertificate(certificate);
    auto key = read ? read->publicKey() : std::nullopt;
    if (!key) return std::nullopt;
    Bytes hash = platform::crypto::sha1(key->externalRepresentation);
    return IdentityKey{std::move(*key), std::move(hash)};
}

}  // namespace keyloft::card
