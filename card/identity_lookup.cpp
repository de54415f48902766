#include "card/identity_lookup.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "card/identity_key.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::card {
namespace {

bool sameBytes(ByteView a, ByteView b) {
    return std::ranges::equal(a, b);
}

}  // namespace

Bytes publicKeyHashOf(const x509::CertificateView& certificate) {
    if (certificate.subjectPublicKey().empty())
        throw KeyloftError::generic("Failed to retrieve public key hash");
    return platform::crypto::sha1(certificate.subjectPublicKey());
}

Bytes certificatePublicKeyHash(ByteView certificate) {
    const auto parsed = x509::readCertificate(certificate);
    if (!parsed) throw KeyloftError::generic("Failed to parse certificate from data");
    return publicKeyHashOf(*parsed);
}

bool itemMatchesHash(const platform::token_store::TokenItem& item, ByteView hash) {
    if (const auto* certificate = std::get_if<platform::token_store::CertificateItem>(&item)) {
        return sameBytes(certificatePublicKeyHash(certificate->certificate), hash);
    }
    const auto key = identityKeyOf(std::get<platform::token_store::KeyItem>(item));
    return key && sameBytes(key->publicKeyHash, hash);
}

platform::token_store::TokenItems::const_iterator findCertificateItem(
    const platform::token_store::TokenItems& items, ByteView hash) {
    return std::ranges::find_if(items, [&](const platform::token_store::TokenItem& item) {
        const auto* certificate = std::get_if<platform::token_store::CertificateItem>(&item);
        return certificate != nullptr &&
               sameBytes(certificatePublicKeyHash(certificate->certificate), hash);
    });
}

}  // namespace keyloft::card
