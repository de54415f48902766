#pragma once

#include <string>

#include "base/bytes.hpp"
#include "platform/token_store/token_items.hpp"
#include "pubkey/hash_type.hpp"

namespace keyloft::pubkey {

// The digest shown for a key: sha1 is the item's public-key hash, sha256 hashes its public-key
// data, ssh hashes its SSH public-key blob. Throws KeyloftError when the item lacks what the hash
// type needs; the blob's own failures pass through.
Bytes keyHash(const platform::token_store::KeyItem& item, HashType type);

// hex: upper-case hex for every type. base64: padded base64 for sha1 and sha256; for ssh the
// OpenSSH form, "SHA256:" and the base64 without its trailing "=".
std::string fingerprint(ByteView digest, HashType type, HashEncoding hashEncoding);

}  // namespace keyloft::pubkey
