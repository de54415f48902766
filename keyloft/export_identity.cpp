#include "keyloft/error.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_access.hpp"
#include "keys/stored_key_codec.hpp"
#include "pkcs12/pfx.hpp"
#include "platform/system/files.hpp"
#include "platform/system/passphrase.hpp"
#include "platform/text/canonical.hpp"
#include "pubkey/hex.hpp"
#include "store/identity_lookup.hpp"

namespace keyloft {
namespace {

platform::SecretText askPassphrase(std::string_view prompt) {
    auto text = platform::readPassphrase(prompt);
    if (!text) throw KeyloftError::generic("Cannot read passphrase");
    return std::move(*text);
}

}  // namespace

void KeyloftApp::exportIdentity() {
    if (!fileName) throw KeyloftError::generic("'file' paramater is mandatory");
    if (!hash) throw KeyloftError::generic("'hash' paramater is mandatory");
    const auto hashBytes = pubkey::fromHexString(*hash);
    if (!hashBytes) throw KeyloftError::generic("Failed to parse pub key hash");

    platform::SecretText exportPassword;
    if (password) {
        exportPassword = *password;
    } else {
        exportPassword =
            askPassphrase("Enter a password which will be used to protect the exported items:");
        const auto again = askPassphrase("Verify password:");
        if (!platform::canonicallyEqual(platform::view(exportPassword), platform::view(again))) {
            throw KeyloftError::generic("Passwords do not match!");
        }
    }
    std::string path = *fileName;
    if (!path.ends_with(".p12")) path += ".p12";

    const auto records = keys::decodeStoredKeys(tokenConfiguration.configurationData());
    const auto notFound =
        KeyloftError::generic("Identity with public key hash <" + *hash + "> not found");
    std::optional<Bytes> certificate;
    for (const auto& item : tokenConfiguration.items()) {
        const auto* candidate = std::get_if<platform::TesseraTokenCertificateItem>(&item);
        if (candidate != nullptr &&
            store::certificatePublicKeyHash(candidate->certificate) == *hashBytes) {
            certificate = candidate->certificate;
            break;
        }
    }
    if (!certificate) throw notFound;
    const auto record = records.find(*hashBytes);
    if (record == records.end()) throw notFound;
    if (!record->second.sealedKey) {
        throw KeyloftError::generic("Private key with public key hash  <" + *hash +
                                    "> is hardware bounded and cannot be exported");
    }
    const auto& sealed = *record->second.sealedKey;
    const Bytes pfx = pkcs12::buildPKCS12(
        platform::view(exportPassword), *certificate, sealed.pubKeyHash, pkcs12::exportIterations,
        [&] {
            auto [key, data] = keys::unwrapPrivateKeyWithData(sealed, nullptr);
            return pkcs12::UnwrappedKey{key.keyType(), key.sizeInBits(), std::move(data)};
        });
    platform::writeFile(path, pfx);
}

}  // namespace keyloft
