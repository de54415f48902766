#include "platform/token_store/token_items.hpp"

#include "base/certificate_reader.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::platform::token_store {

std::optional<CertificateItem> makeCertificateItem(ByteView certificate, ByteView objectID) {
    if (!readCertificate(certificate)) return std::nullopt;
    return CertificateItem{Bytes(objectID.begin(), objectID.end()), std::nullopt,
                           Bytes(certificate.begin(), certificate.end())};
}

std::optional<KeyItem> makeKeyItem(ByteView certificate, ByteView objectID) {
    KeyItem item{.objectID = Bytes(objectID.begin(), objectID.end()),
                 .certificate = Bytes(certificate.begin(), certificate.end())};
    deriveKeyFields(item);
    if (!item.publicKeyData) return std::nullopt;
    return item;
}

void deriveKeyFields(KeyItem& item) {
    // Read from the certificate's structure: loading a long item list must not decode every key.
    const auto certificate = readCertificate(item.certificate);
    deriveKeyFields(item, certificate ? certificate->publicKey() : std::nullopt);
}

void deriveKeyFields(KeyItem& item, std::optional<PublicKeyAttributes> key) {
    item.keyType.clear();
    item.keySizeInBits = 0;
    item.publicKeyData.reset();
    item.publicKeyHash.reset();
    if (!key) return;
    item.publicKeyHash = crypto::sha1(key->externalRepresentation);
    item.keyType = std::move(key->keyType);
    item.keySizeInBits = key->sizeInBits;
    item.publicKeyData = std::move(key->externalRepresentation);
}

}  // namespace keyloft::platform::token_store
