#include <exception>
#include <iostream>
#include <optional>
#include <set>
#include <vector>

#include "base/error.hpp"
#include "card/identity_writes.hpp"
#include "encoding/hex.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_creation.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/os/files.hpp"
#include "platform/os/passphrase.hpp"
#include "platform/pkcs12_import/pkcs12_reader.hpp"
#include "x509/certificate_reader.hpp"

namespace keyloft {
namespace {

// The certificate's common name, else its first e-mail address, else nothing.
std::string labelOf(ByteView certificate) {
    const auto parsed = x509::readCertificate(certificate);
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

    // Wrapping a key takes a new key of the key processor: done before the card is held, and only
    // for identities the card does not hold yet. A failure stops the wrapping; the identities
    // before it are still added, as they would have been one by one.
    const auto data = tokenConfiguration.configurationData();
    const auto onCard = keys::decodeStoredKeys(data);
    const bool tpmCard = keys::holdsTpmKeys(onCard);
    std::vector<std::optional<keys::KeyStorage>> wrapped(identities->size());
    std::exception_ptr wrapFailure;
    std::size_t ready = 0;
    std::set<Bytes> seen;
    for (; ready < identities->size(); ++ready) {
        auto& key = (*identities)[ready].key;
        try {
            const Bytes keyHash = key.applicationLabel();
            if (onCard.contains(keyHash) || !seen.insert(keyHash).second) continue;
            wrapped[ready] =
                keys::KeyStorage{.sealedKey = keys::makeSealedKey(key, biometry, tpmCard)};
        } catch (...) {
            wrapFailure = std::current_exception();
            break;
        }
    }

    tokenConfiguration.writeCommittingEvenOnThrow([&] {
        card::IdentityAdditions additions(tokenConfiguration, data);
        // Identities added before one fails stay on the card.
        try {
            for (std::size_t i = 0; i < ready; ++i) {
                auto& identity = (*identities)[i];
                const Bytes keyHash = identity.key.applicationLabel();
                const std::string identityLabel = labelOf(identity.certificate);
                auto items = card::makeIdentityItems(identity.certificate, keyHash, identityLabel);
                if (additions.holds(keyHash)) {
                    std::cout << "Skipped to import identity '" << identityLabel
                              << "' because identity with PubKey Hash: <"
                              << encoding::toHexString(keyHash) << "> already exist" << std::endl;
                    continue;
                }
                // Removed by another command since it was found on the card.
                if (!wrapped[i])
                    wrapped[i] = keys::KeyStorage{
                        .sealedKey = keys::makeSealedKey(identity.key, biometry, tpmCard)};
                additions.add(keyHash, std::move(*wrapped[i]), std::move(items));
            }
        } catch (...) {
            additions.write();
            throw;
        }
        additions.write();
    });
    if (wrapFailure) std::rethrow_exception(wrapFailure);
}

}  // namespace keyloft
