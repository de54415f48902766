#include <algorithm>

#include "keyloft/error.hpp"
#include "keyloft/keyloft_app.hpp"
#include "platform/system/files.hpp"
#include "pubkey/hex.hpp"
#include "store/identity_lookup.hpp"
#include "x509/pem.hpp"

namespace keyloft {

void KeyloftApp::importCertificate() {
    if (!fileName) throw KeyloftError::generic("'file' paramater is mandatory");
    const auto text = platform::readTextFile(*fileName);
    const auto certificate = x509::certificateFromPem(text);
    if (!certificate) throw KeyloftError::generic("Failed to decode base64 certificate data");
    const auto keyHash = store::certificatePublicKeyHash(*certificate);

    auto items = tokenConfiguration.items();
    const auto matched = std::ranges::find_if(items, [&](const platform::TesseraTokenItem& item) {
        const auto* existing = std::get_if<platform::TesseraTokenCertificateItem>(&item);
        return existing != nullptr &&
               store::certificatePublicKeyHash(existing->certificate) == keyHash;
    });
    if (matched == items.end()) {
        throw KeyloftError::generic("The certificate with pubkey hash <" +
                                    pubkey::toHexString(keyHash) +
                                    "> does not match with any private key");
    }
    auto item = platform::makeCertificateItem(*certificate, keyHash);
    if (!item) throw KeyloftError::generic("Failed to create token certificate");

    // The old certificate goes; the new one is appended, after whatever the list holds now.
    items.erase(matched);
    tokenConfiguration.replaceItems(items);
    auto current = tokenConfiguration.items();
    current.emplace_back(std::move(*item));
    tokenConfiguration.replaceItems(current);
}

}  // namespace keyloft
