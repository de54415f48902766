#pragma once

#include <optional>
#include <string>

namespace keyloft::platform::os {

// One line from standard input without its line terminator; nothing at end of input.
std::optional<std::string> readStandardInputLine();

}  // namespace keyloft::platform::os
