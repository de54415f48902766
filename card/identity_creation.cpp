#include "card/identity_creation.hpp"

#include <algorithm>

#include "base/certificate_reader.hpp"
#include "base/error.hpp"
#include "card/identity_lookup.hpp"
#include "der/object_identifiers.hpp"
#include "keys/key_access.hpp"
#include "keys/key_creation.hpp"
#include "platform/crypto/random.hpp"
#include "pubkey/hex.hpp"
#include "x509/certificate.hpp"

namespace keyloft::card {

NewIdentity makeSelfSignedIdentity(KeyType type, const std::optional<std::string>& givenLabel,
                                   bool cardHoldsTpmKeys) {
    auto key = keys::generateKey(type, false, cardHoldsTpmKeys);
    const std::string label = givenLabel.value_or(pubkey::toHexString(key.key->applicationLabel()));
    // The label is the common name alone: the separators of the subject specification in it
    // would start other name parts.
    std::string commonName = label;
    std::replace_if(
        commonName.begin(), commonName.end(), [](char c) { return c == ';' || c == '|'; }, ' ');
    return certifyNewKey(std::move(key), commonName + ";;;;;;", label);
}

NewIdentity certifyNewKey(keys::NewKey key, std::string_view subjectSpecification,
                          const std::string& label) {
    const auto publicKey = key.key->publicKeyAttributes();
    if (publicKey.externalRepresentation.empty())
        throw KeyloftError::generic("failed to get public key");
    Bytes hash = key.key->applicationLabel();
    const auto model = x509::X509Certificate::create(publicKey, hash, subjectSpecification, false,
                                                     platform::crypto::randomUuid);
    const auto certificate =
        der::encode(x509::buildCertificate(model, der::oid::ecdsaWithSHA384, [&](ByteView tbs) {
            return keys::signWithStoredKey(
                tbs, key.storage,
                platform::key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384);
        }));
    if (!readCertificate(certificate)) throw KeyloftError::generic("Failed to create certificate");
    auto items = makeIdentityItems(certificate, hash, label);
    return {std::move(hash), std::move(key.storage), std::move(items)};
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
