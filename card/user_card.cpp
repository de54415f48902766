#include "card/user_card.hpp"

#include <string>

#include "base/error.hpp"
#include "platform/os/paths.hpp"

namespace keyloft::card {

platform::token_store::TokenStore openUserRegistry() {
    return platform::token_store::TokenStore::open(
        platform::os::dataFolder() / platform::os::storeFileName, driverClassID);
}

platform::token_store::Token userToken(const platform::token_store::TokenStore& registry) {
    const auto drivers = registry.driverConfigurations();
    const auto driver = drivers.find(std::string(driverClassID));
    if (driver == drivers.end()) {
        throw KeyloftError::generic("Failed to get TesseraTokenDriver configuration");
    }
    auto tokens = driver->second.tokenConfigurations();
    const auto user = tokens.find(std::string(userInstanceID));
    return user != tokens.end() ? user->second
                                : driver->second.addTokenConfiguration(userInstanceID);
}

}  // namespace keyloft::card
