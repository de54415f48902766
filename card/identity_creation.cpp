#include "card/identity_creation.hpp"

#include "base/error.hpp"
#include "card/identity_lookup.hpp"
#include "der/object_identifiers.hpp"
#include "encoding/hex.hpp"
#include "keys/key_creation.hpp"
#include "platform/crypto/random.hpp"
#include "x509/certificate.hpp"
#include "x509/certificate_reader.hpp"

namespace keyloft::card {

NewIdentity createIdentity(const Token& token, const IdentityRequest& request) {
    // Read without decoding every record: only the key processor depends on them.
    auto cardData = token.configurationData();
    auto key = keys::generateKey(request.type, request.biometry, keys::holdsTpmKeys(cardData));

    const auto publicKey = key.key->publicKeyAttributes();
    if (publicKey.externalRepresentation.empty())
        throw KeyloftError::generic("failed to get public key");
    Bytes hash = key.key->applicationLabel();
    const std::string label = request.label.value_or(encoding::toHexString(hash));
    auto model = x509::X509Certificate::create(
        publicKey, hash, request.subject.value_or(x509::Name{.commonName = label}), false,
        platform::crypto::randomUuid);
    if (request.lifetime) model.validTo = model.validFrom + *request.lifetime;
    // An RSA key signs its certificate with SHA-256, which every verifier takes.
    const bool rsa = publicKey.keyType == keyTypeRSA;
    const auto algorithm =
        rsa ? platform::key_service::SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA256
            : platform::key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;
    const auto certificate = der::encode(x509::buildCertificate(
        model,
        rsa ? ByteView(der::oid::sha256WithRSAEncryption) : ByteView(der::oid::ecdsaWithSHA384),
        [&](ByteView tbs) { return key.sign(algorithm, tbs); }));

    const auto read = x509::readCertificate(certificate);
    if (!read) throw KeyloftError::generic("Failed to create certificate");
    auto items = makeIdentityItems(*read, certificate, hash, label);
    return {std::move(hash), std::move(key.storage), std::move(items), std::move(cardData)};
}

void addIdentity(const Token& token, NewIdentity identity) {
    IdentityAdditions additions(token, identity.cardData);
    additions.add(identity.hash, std::move(identity.storage), std::move(identity.items));
    additions.write();
}

bool relabelIdentity(const Token& token, ByteView hash, const std::string& label) {
    const auto items = token.items();
    std::vector<std::size_t> matching;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!itemMatchesHash(items[i], hash)) continue;
        // The key item names the identity; a certificate item keeps having no label when it has
        // none (an issued certificate is stored without one).
        const auto* certificate = std::get_if<platform::token_store::CertificateItem>(&items[i]);
        if (certificate == nullptr || certificate->label) matching.push_back(i);
    }
    // The items stay where they are, so the identity keeps its place in listings.
    token.relabelItemsAt(matching, label);
    return !matching.empty();
}

}  // namespace keyloft::card
