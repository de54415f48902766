#include "base/error.hpp"
#include "card/identity_lookup.hpp"
#include "card/identity_writes.hpp"
#include "encoding/hex.hpp"
#include "keyloft/keyloft_app.hpp"
#include "platform/os/files.hpp"
#include "x509/pem.hpp"

namespace keyloft {

void KeyloftApp::importCertificate() {
    if (!fileName) throw KeyloftError::generic("'file' paramater is mandatory");
    const auto text = platform::os::readTextFile(*fileName);
    const auto certificate = x509::certificateFromPem(text);
    if (!certificate) throw KeyloftError::generic("Failed to decode base64 certificate data");
    const auto keyHash = card::certificatePublicKeyHash(*certificate);

    bool replaced = false;
    tokenConfiguration.writeCommittingEvenOnThrow([&] {
        replaced = card::replaceCertificateItem(tokenConfiguration, *certificate, keyHash);
    });
    if (!replaced) {
        throw KeyloftError::generic("The certificate with pubkey hash <" +
                                    encoding::toHexString(keyHash) +
                                    "> does not match with any private key");
    }
}

}  // namespace keyloft
