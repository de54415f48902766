#include "base/error.hpp"
#include "card/identity_writes.hpp"
#include "keyloft/keyloft_app.hpp"
#include "pubkey/hex.hpp"

namespace keyloft {

void KeyloftApp::deleteIdentity() {
    if (!hash) throw KeyloftError::generic("'hash' paramater is mandatory");
    const auto hashBytes = pubkey::fromHexString(*hash);
    if (!hashBytes) throw KeyloftError::generic("Failed to parse pub key hash");
    tokenConfiguration.writeCommittingEvenOnThrow([&] {
        card::removeIdentityItems(tokenConfiguration, *hashBytes);
        card::removeKeyRecord(tokenConfiguration, *hashBytes);
    });
}

}  // namespace keyloft
