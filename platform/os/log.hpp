#pragma once

#include <string_view>

// The diagnostic log: the system log, ident "keyloft", category "Keyloft". Never the terminal.
namespace keyloft::platform::os {

void logError(std::string_view message);
void logDebug(std::string_view message);

}  // namespace keyloft::platform::os
