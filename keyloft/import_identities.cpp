#include <iostream>

#include "keyloft/error.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keyloft/token_writes.hpp"
#include "keys/key_creation.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/certificate/certificate.hpp"
#include "platform/pkcs12/pkcs12_reader.hpp"
#include "platform/system/files.hpp"
#include "platform/system/passphrase.hpp"
#include "pubkey/hex.hpp"

namespace keyloft {
namespace {

// The certificate's common name, else its first e-mail address, else nothing.
std::string labelOf(ByteView certificate) {
    const auto parsed = platform::Certificate::parse(certificate);
    if (!parsed) return {};
    if (auto name = parsed->commonName()) return *name;
    const auto emails = parsed->emailAddresses();
    return emails.empty() ? std::string() : emails.front();
}

}  // namespace

void KeyloftApp::importIdentities() {
    if (!fileName) throw KeyloftError::generic("'file' paramater is mandatory");
    platform::SecretText filePassword;
    if (password) {
        filePassword = *password;
    } else {
        auto typed = platform::readPassphrase("Enter PKCS12 file password:");
        if (!typed) throw KeyloftError::generic("Cannot read passphrase");
        filePassword = std::move(*typed);
    }
    const bool biometry = keyProtection == KeyProtection::bio;

    const Bytes file = platform::readFile(*fileName);
    auto identities = platform::readPkcs12Identities(file, platform::view(filePassword));
    if (!identities) throw KeyloftError::generic("PKCS12 import failed");

    for (auto& identity : *identities) {
        const Bytes keyHash = identity.key.applicationLabel();
        keys::KeyStorage storage{.sealedKey = keys::makeSealedKey(identity.key, biometry)};
        const std::string identityLabel = labelOf(identity.certificate);
        const auto items = makeIdentityItems(identity.certificate, keyHash, identityLabel);

        auto records = keys::decodeStoredKeys(tokenConfiguration.configurationData());
        if (records.contains(keyHash)) {
            std::cout << "Skipped to import identity '" << identityLabel
                      << "' because identity with PubKey Hash: <" << pubkey::toHexString(keyHash)
                      << "> already exist" << std::endl;
            continue;
        }
        storeKeyRecord(tokenConfiguration, std::move(records), keyHash, std::move(storage));
        appendIdentityItems(tokenConfiguration, items);
    }
}

}  // namespace keyloft
