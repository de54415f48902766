#include "platform/os/terminal.hpp"

#include <iostream>

namespace keyloft::platform::os {

std::optional<std::string> readStandardInputLine() {
    std::string line;
    if (!std::getline(std::cin, line)) return std::nullopt;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

}  // namespace keyloft::platform::os
