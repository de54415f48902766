#pragma once

#include <filesystem>

#include "platform/crypto/secret.hpp"

namespace keyloft::platform::key_processor {

// The soft key processor's 32-byte device key in the given file: created atomically with mode 0600
// on first use, never rewritten. Two processes racing to create it end with the same key. A key
// file of another user's, or one that other users may read or write, is refused.
crypto::SecretBytes loadOrCreateDeviceKey(const std::filesystem::path& file);

}  // namespace keyloft::platform::key_processor
