#include "base/error.hpp"
#include "encoding/hex.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keyloft/subject_options.hpp"
#include "keys/key_access.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/os/files.hpp"
#include "x509/certification_request.hpp"
#include "x509/pem.hpp"

namespace keyloft {

void KeyloftApp::createCsr() {
    if (!fileName) throw KeyloftError::generic("'file' paramater is mandatory");
    if (!hash) throw KeyloftError::generic("'hash' paramater is mandatory");
    const auto hashBytes = encoding::fromHexString(*hash);
    if (!hashBytes) throw KeyloftError::generic("Failed to parse pub key hash");

    const auto records = keys::decodeStoredKeys(tokenConfiguration.configurationData());
    const auto record = records.find(*hashBytes);
    if (record == records.end()) throw KeyloftError::generic("No identity found for hash: <hash>");
    const auto key =
        keys::privateKey(record->second, std::make_shared<keys::AuthenticationContext>());
    const auto storedKeyType = key->keyType();
    const auto publicKey = key->publicKeyAttributes();
    if (publicKey.externalRepresentation.empty())
        throw KeyloftError::generic("Failed to copy public key");
    keys::requireKeyOfHash(*key, *hashBytes);

    const auto algorithm =
        storedKeyType == keyTypeRSA
            ? platform::key_service::SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384
            : platform::key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;
    const auto request = der::encode(
        x509::buildCertificationRequest(requestSubject(*this), publicKey,
                                        [&](ByteView info) { return key->sign(algorithm, info); }));
    if (request.empty())
        throw KeyloftError::generic("Failed to genrete Certificate Signature Request");

    std::string path = *fileName;
    if (!path.ends_with(".csr")) path += ".csr";
    platform::os::replaceFileAtomically(path,
                                        bytesOf(x509::pemText("CERTIFICATE REQUEST", request)),
                                        platform::os::FileAccess::usual);
}

}  // namespace keyloft
