#include "base/error.hpp"
#include "card/identity_writes.hpp"
#include "encoding/hex.hpp"
#include "keyloft/keyloft_app.hpp"

namespace keyloft {

void KeyloftApp::deleteIdentity() {
    if (!hash) throw KeyloftError::generic("'hash' paramater is mandatory");
    const auto hashBytes = encoding::fromHexString(*hash);
    if (!hashBytes) throw KeyloftError::generic("Failed to parse pub key hash");
    tokenConfiguration.writeCommittingEvenOnThrow([&] {
        card::removeIdentityItems(tokenConfiguration, *hashBytes);
        card::removeKeyRecord(tokenConfiguration, *hashBytes);
    });
}

}  // namespace keyloft
