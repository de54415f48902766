#include "base/certificate_reader.hpp"
#include "base/error.hpp"
#include "der/object_identifiers.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_access.hpp"
#include "keys/key_creation.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/crypto/random.hpp"
#include "store/identity_writes.hpp"
#include "x509/certificate.hpp"

namespace keyloft {
void KeyloftApp::createIdentity() {
    if (!label) throw KeyloftError::generic("'label' paramater is mandatory");
    if (!keyType) throw KeyloftError::generic("Missing or unsupported 'keyType' paramater");
    const bool biometry = keyProtection == KeyProtection::bio;

    const auto data = tokenConfiguration.configurationData();
    auto card = keys::decodeStoredKeys(data);
    auto [key, storage] = keys::generateKey(*keyType, biometry, card);
    const auto publicKey = key->publicKeyAttributes();
    if (publicKey.externalRepresentation.empty())
        throw KeyloftError::generic("failed to get public key");
    const Bytes keyHash = key->applicationLabel();

    const std::string specification = commonName + ";" + email + ";" + organizationalUnit + ";" +
                                      organization + ";" + locality + ";" + stateOrProvince + ";" +
                                      country;
    const auto model = x509::X509Certificate::create(publicKey, keyHash, specification, false,
                                                     platform::crypto::randomUuid);
    const auto certificate =
        der::encode(x509::buildCertificate(model, der::oid::ecdsaWithSHA384, [&](ByteView tbs) {
            return keys::signWithStoredKey(
                tbs, storage,
                platform::key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384);
        }));
    if (!readCertificate(certificate)) throw KeyloftError::generic("Failed to create certificate");
    const auto items = store::makeIdentityItems(certificate, keyHash, *label);

    tokenConfiguration.writeTransaction([&] {
        store::IdentityAdditions additions(tokenConfiguration, data, std::move(card));
        additions.add(keyHash, std::move(storage), items);
        additions.write();
    });
}

}  // namespace keyloft
