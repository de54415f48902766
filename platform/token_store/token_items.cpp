#include "platform/token_store/token_items.hpp"

#include "platform/certificate_service/certificate.hpp"
#include "platform/certificate_service/subject_public_key.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::platform::token_store {

std::optional<TesseraTokenCertificateItem> makeCertificateItem(ByteView certificate,
                                                               ByteView objectID) {
    if (!certificate_service::Certificate::parse(certificate)) return std::nullopt;
    return TesseraTokenCertificateItem{Bytes(objectID.begin(), objectID.end()), std::nullopt,
                                       Bytes(certificate.begin(), certificate.end())};
}

std::optional<TesseraTokenKeyItem> makeKeyItem(ByteView certificate, ByteView objectID) {
    TesseraTokenKeyItem item{.objectID = Bytes(objectID.begin(), objectID.end()),
                             .certificate = Bytes(certificate.begin(), certificate.end())};
    deriveKeyFields(item);
    if (!item.publicKeyData) return std::nullopt;
    return item;
}

void deriveKeyFields(TesseraTokenKeyItem& item) {
    item.keyType.clear();
    item.keySizeInBits = 0;
    item.publicKeyData.reset();
    item.publicKeyHash.reset();
    // Read from the certificate's structure: loading a long item list must not decode every key.
    auto key = certificate_service::subjectPublicKeyOf(item.certificate);
    if (!key) return;
    item.publicKeyHash = crypto::sha1(key->externalRepresentation);
    item.keyType = std::move(key->keyType);
    item.keySizeInBits = key->sizeInBits;
    item.publicKeyData = std::move(key->externalRepresentation);
}

}  // namespace keyloft::platform::token_store
