#pragma once

#include <string>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "pubkey/hash_type.hpp"

namespace keyloft::pubkey {

// The digest shown for a key: sha1 (the public-key hash) and sha256 hash its external
// representation, ssh hashes its SSH public-key blob. Throws KeyloftError for a key without an
// external representation (one its certificate did not give); the blob's own failures pass
// through.
Bytes keyHash(const PublicKeyAttributes& key, HashType type);

// hex: upper-case hex for every type. base64: padded base64 for sha1 and sha256; for ssh the
// OpenSSH form, "SHA256:" and the base64 without its trailing "=".
std::string fingerprint(ByteView digest, HashType type, HashEncoding hashEncoding);

}  // namespace keyloft::pubkey
