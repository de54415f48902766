#pragma once

#include <optional>
#include <string_view>

#include "platform/crypto/secret.hpp"

namespace keyloft::platform::os {

// Prompts on the controlling terminal and reads one line with echo off, keeping at most 511
// bytes; the bytes become UTF-8 text with invalid sequences replaced. Nothing when there is no
// controlling terminal, echo cannot be turned off, or the read fails. The terminal mode is
// restored in every case; a signal that arrives meanwhile is delivered after that.
std::optional<crypto::SecretText> readPassphrase(std::string_view prompt);

}  // namespace keyloft::platform::os
