#include "der/object_identifiers.hpp"
#include "keyloft/error.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keyloft/token_writes.hpp"
#include "keys/key_access.hpp"
#include "keys/key_creation.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/certificate/certificate.hpp"
#include "platform/crypto/random.hpp"
#include "x509/certificate.hpp"

namespace keyloft {
namespace {

bool isProcessorKeyType(KeyType type) {
    return type == KeyType::p256ne || type == KeyType::p384ne;
}

}  // namespace

void KeyloftApp::createIdentity() {
    if (!label) throw KeyloftError::generic("'label' paramater is mandatory");
    if (!keyType) throw KeyloftError::generic("Missing or unsupported 'keyType' paramater");
    const bool biometry = keyProtection == KeyProtection::bio;

    const auto key = keys::generateKey(*keyType, biometry);
    const auto publicKey = key.publicKeyAttributes();
    if (publicKey.externalRepresentation.empty())
        throw KeyloftError::generic("failed to get public key");
    const Bytes keyHash = key.applicationLabel();

    keys::KeyStorage storage;
    if (isProcessorKeyType(*keyType)) {
        storage.bastionKey = keys::makeBastionKey(*key.processorKey(), biometry);
    } else {
        storage.sealedKey = keys::makeSealedKey(*key.softwareKey(), biometry);
    }

    const std::string specification = commonName + ";" + email + ";" + organizationalUnit + ";" +
                                      organization + ";" + locality + ";" + stateOrProvince + ";" +
                                      country;
    const auto model = x509::X509Certificate::create(publicKey, keyHash, specification, false,
                                                     platform::randomUuid);
    const auto certificate =
        der::encode(x509::buildCertificate(model, der::oid::ecdsaWithSHA384, [&](ByteView tbs) {
            return keys::signWithStoredKey(
                tbs, storage, platform::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384);
        }));
    if (!platform::Certificate::parse(certificate))
        throw KeyloftError::generic("Failed to create certificate");
    const auto items = makeIdentityItems(certificate, keyHash, *label);

    auto records = keys::decodeStoredKeys(tokenConfiguration.configurationData());
    storeKeyRecord(tokenConfiguration, std::move(records), keyHash, std::move(storage));
    appendIdentityItems(tokenConfiguration, items);
}

}  // namespace keyloft
