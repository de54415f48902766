#include "base/error.hpp"
#include "card/identity_lookup.hpp"
#include "encoding/hex.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_access.hpp"
#include "keys/stored_key_codec.hpp"
#include "pkcs12_export/pfx.hpp"
#include "platform/os/files.hpp"
#include "platform/os/passphrase.hpp"
#include "platform/text/canonical.hpp"

namespace keyloft {
namespace {

platform::crypto::SecretText askPassphrase(std::string_view prompt) {
    auto text = platform::os::readPassphrase(prompt);
    if (!text) throw KeyloftError::generic("Cannot read passphrase");
    return std::move(*text);
}

}  // namespace

void KeyloftApp::exportIdentity() {
    if (!fileName) throw KeyloftError::generic("'file' paramater is mandatory");
    if (!hash) throw KeyloftError::generic("'hash' paramater is mandatory");
    const auto hashBytes = encoding::fromHexString(*hash);
    if (!hashBytes) throw KeyloftError::generic("Failed to parse pub key hash");

    platform::crypto::SecretText exportPassword;
    if (password) {
        exportPassword = *password;
    } else {
        exportPassword =
            askPassphrase("Enter a password which will be used to protect the exported items:");
        const auto again = askPassphrase("Verify password:");
        if (!platform::text::canonicallyEqual(platform::crypto::view(exportPassword),
                                              platform::crypto::view(again))) {
            throw KeyloftError::generic("Passwords do not match!");
        }
    }
    std::string path = *fileName;
    if (!path.ends_with(".p12")) path += ".p12";

    keys::StoredKeyMap records;
    platform::token_store::TokenItems items;
    tokenConfiguration.readTransaction([&] {
        records = keys::decodeStoredKeys(tokenConfiguration.configurationData());
        items = tokenConfiguration.items();
    });
    const auto notFound =
        KeyloftError::generic("Identity with public key hash <" + *hash + "> not found");
    const auto found = card::findCertificateItem(items, *hashBytes);
    if (found == items.end()) throw notFound;
    const auto& certificate = std::get<platform::token_store::CertificateItem>(*found).certificate;
    const auto record = records.find(*hashBytes);
    if (record == records.end()) throw notFound;
    if (!record->second.sealedKey) {
        throw KeyloftError::generic("Private key with public key hash  <" + *hash +
                                    "> is hardware bounded and cannot be exported");
    }
    const auto& sealed = *record->second.sealedKey;
    const Bytes pfx = pkcs12_export::buildPKCS12(
        platform::crypto::view(exportPassword), certificate, sealed.pubKeyHash,
        pkcs12_export::exportIterations, [&] {
            auto [key, data] = keys::unwrapPrivateKeyWithData(sealed, nullptr);
            keys::requireKeyOfHash(key, *hashBytes);
            return pkcs12_export::UnwrappedKey{key.keyType(), key.sizeInBits(), std::move(data)};
        });
    platform::os::replaceFileAtomically(path, pfx, platform::os::FileAccess::ownerOnly);
}

}  // namespace keyloft
