#pragma once

#include "keyloft/options.hpp"
#include "keys/key_handle.hpp"
#include "keys/stored_key_records.hpp"

namespace keyloft::keys {

// The access-control word of a processor key: private-key usage, plus any enrolled biometry.
std::uint32_t accessControlFor(bool biometry);

// A new key pair of the type: inside the key processor for the "-ne" types, else a software key.
KeyHandle generateKey(KeyType type, bool biometry);

// The record of a processor key made by generateKey.
BastionKey makeBastionKey(const platform::ProcessorKey& key, bool biometry);

// Wraps a software private key under a new processor-held P-256 wrapping key.
SealedKey makeSealedKey(const platform::SoftwareKey& key, bool biometry);

}  // namespace keyloft::keys
