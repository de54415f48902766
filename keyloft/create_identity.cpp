#include "base/error.hpp"
#include "card/identity_creation.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keyloft/subject_options.hpp"

namespace keyloft {

void KeyloftApp::createIdentity() {
    if (!label) throw KeyloftError::generic("'label' paramater is mandatory");
    if (!keyType) throw KeyloftError::generic("Missing or unsupported 'keyType' paramater");
    auto [subject, lifetime] = certificateSubject(*this);
    auto identity =
        card::createIdentity(tokenConfiguration, {.type = *keyType,
                                                  .biometry = keyProtection == KeyProtection::bio,
                                                  .label = label,
                                                  .subject = std::move(subject),
                                                  .lifetime = lifetime});
    tokenConfiguration.writeCommittingEvenOnThrow(
        [&] { card::addIdentity(tokenConfiguration, std::move(identity)); });
}

}  // namespace keyloft
