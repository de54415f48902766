#include "base/error.hpp"
#include "card/identity_creation.hpp"
#include "card/identity_writes.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_creation.hpp"
#include "keys/stored_key_codec.hpp"

namespace keyloft {
void KeyloftApp::createIdentity() {
    if (!label) throw KeyloftError::generic("'label' paramater is mandatory");
    if (!keyType) throw KeyloftError::generic("Missing or unsupported 'keyType' paramater");
    const bool biometry = keyProtection == KeyProtection::bio;

    // Read without decoding every record: only the key processor depends on them.
    const auto data = tokenConfiguration.configurationData();
    const bool tpmCard = keys::holdsTpmKeys(data);
    const std::string specification = commonName + ";" + email + ";" + organizationalUnit + ";" +
                                      organization + ";" + locality + ";" + stateOrProvince + ";" +
                                      country;
    auto identity =
        card::certifyNewKey(keys::generateKey(*keyType, biometry, tpmCard), specification, *label);

    tokenConfiguration.writeCommittingEvenOnThrow([&] {
        card::IdentityAdditions additions(tokenConfiguration, data);
        additions.add(identity.hash, std::move(identity.storage), std::move(identity.items));
        additions.write();
    });
}

}  // namespace keyloft
