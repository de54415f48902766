#include <iostream>

#include "base/certificate_reader.hpp"
#include "base/error.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_creation.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/os/files.hpp"
#include "platform/os/passphrase.hpp"
#include "platform/pkcs12_import/pkcs12_reader.hpp"
#include "pubkey/hex.hpp"
#include "store/identity_writes.hpp"

namespace keyloft {
namespace {

// The certificate's common name, else its first e-mail address, else nothing.
std::string labelOf(ByteView certificate) {
    const auto parsed = readCertificate(certificate);
    if (!parsed) return {};
    if (auto name = parsed->commonName()) return *name;
    const auto emails = parsed->emailAddresses();
    return emails.empty() ? std::string() : emails.front();
}

}  // namespace

void KeyloftApp::importIdentities() {
    if (!fileName) throw KeyloftError::generic("'file' paramater is mandatory");
    platform::crypto::SecretText filePassword;
    if (password) {
        filePassword = *password;
    } else {
        auto typed = platform::os::readPassphrase("Enter PKCS12 file password:");
        if (!typed) throw KeyloftError::generic("Cannot read passphrase");
        filePassword = std::move(*typed);
    }
    const bool biometry = keyProtection == KeyProtection::bio;

    const Bytes file = platform::os::readFile(*fileName);
    auto identities =
        platform::pkcs12_import::readPkcs12Identities(file, platform::crypto::view(filePassword));
    if (!identities) throw KeyloftError::generic("PKCS12 import failed");

    tokenConfiguration.writeTransaction([&] {
        store::IdentityAdditions additions(tokenConfiguration);
        const bool tpmCard = keys::holdsTpmKeys(additions.records());
        // Identities added before one fails stay on the card.
        try {
            for (auto& identity : *identities) {
                const Bytes keyHash = identity.key.applicationLabel();
                keys::KeyStorage storage{.sealedKey =
                                             keys::makeSealedKey(identity.key, biometry, tpmCard)};
                const std::string identityLabel = labelOf(identity.certificate);
                auto items = store::makeIdentityItems(identity.certificate, keyHash, identityLabel);
                if (additions.holds(keyHash)) {
                    std::cout << "Skipped to import identity '" << identityLabel
                              << "' because identity with PubKey Hash: <"
                              << pubkey::toHexString(keyHash) << "> already exist" << std::endl;
                    continue;
                }
                additions.add(keyHash, std::move(storage), std::move(items));
            }
        } catch (...) {
            additions.write();
            throw;
        }
        additions.write();
    });
}

}  // namespace keyloft
