#pragma once

#include <string_view>

#include "platform/token_store/token_store.hpp"

// Where the user's card lives: the tool's token driver, its "user" token, and the store file.
namespace keyloft::card {

inline constexpr std::string_view driverClassID = "org.keyloft.token";
inline constexpr std::string_view userInstanceID = "user";

// The user's store; created, with the tool's driver registered, when missing. Throws
// PlatformError, before anything is written, when the data folder is refused.
platform::token_store::TokenStore openUserRegistry();

// The tool's driver's "user" token, added when missing. Throws "Failed to get TesseraTokenDriver
// configuration" when the store lacks the tool's driver.
platform::token_store::Token userToken(const platform::token_store::TokenStore& registry);

}  // namespace keyloft::card
