#include "platform/tessera/token_items.hpp"

#include "platform/certificate/certificate.hpp"

namespace keyloft::platform {

std::optional<TesseraTokenCertificateItem> makeCertificateItem(ByteView certificate,
                                                               ByteView objectID) {
    if (!Certificate::parse(certificate)) return std::nullopt;
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
    const auto certificate = Certificate::parse(item.certificate);
    if (!certificate) return;
    item.publicKeyHash = certificate->publicKeyHash();
    if (const auto key = certificate->publicKey()) {
        item.keyType = key->keyType;
        item.keySizeInBits = key->sizeInBits;
        item.publicKeyData = key->externalRepresentation;
    }
}

}  // namespace keyloft::platform
