#include "base/error.hpp"
#include "keyloft/keyloft_app.hpp"
#include "pubkey/hex.hpp"
#include "store/identity_writes.hpp"

namespace keyloft {

void KeyloftApp::deleteIdentity() {
    if (!hash) throw KeyloftError::generic("'hash' paramater is mandatory");
    const auto hashBytes = pubkey::fromHexString(*hash);
    if (!hashBytes) throw KeyloftError::generic("Failed to parse pub key hash");
    tokenConfiguration.writeTransaction([&] {
        store::removeIdentityItems(tokenConfiguration, *hashBytes);
        store::removeKeyRecord(tokenConfiguration, *hashBytes);
    });
}

}  // namespace keyloft
