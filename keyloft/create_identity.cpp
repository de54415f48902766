#include "base/error.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_creation.hpp"
#include "keys/stored_key_codec.hpp"
#include "store/identity_creation.hpp"
#include "store/identity_writes.hpp"

namespace keyloft {
void KeyloftApp::createIdentity() {
    if (!label) throw KeyloftError::generic("'label' paramater is mandatory");
    if (!keyType) throw KeyloftError::generic("Missing or unsupported 'keyType' paramater");
    const bool biometry = keyProtection == KeyProtection::bio;

    const auto data = tokenConfiguration.configurationData();
    auto card = keys::decodeStoredKeys(data);
    const std::string specification = commonName + ";" + email + ";" + organizationalUnit + ";" +
                                      organization + ";" + locality + ";" + stateOrProvince + ";" +
                                      country;
    auto identity =
        store::certifyNewKey(keys::generateKey(*keyType, biometry, card), specification, *label);

    tokenConfiguration.writeTransaction([&] {
        store::IdentityAdditions additions(tokenConfiguration, data, std::move(card));
        additions.add(identity.hash, std::move(identity.storage), std::move(identity.items));
        additions.write();
    });
}

}  // namespace keyloft
