#include "pubkey/fingerprint.hpp"

#include "base/error.hpp"
#include "encoding/base64.hpp"
#include "encoding/hex.hpp"
#include "platform/crypto/digest.hpp"
#include "pubkey/ssh_public_key.hpp"

namespace keyloft::pubkey {

Bytes keyHash(const PublicKeyAttributes& key, HashType type) {
    const Bytes& data = key.externalRepresentation;
    switch (type) {
        case HashType::sha1:
            if (data.empty()) throw KeyloftError::generic("key has invalid public key hash");
            return platform::crypto::sha1(data);
        case HashType::sha256:
            if (data.empty()) throw KeyloftError::generic("key has invalid public key data");
            return platform::crypto::sha256(data);
        case HashType::ssh:
            return platform::crypto::sha256(sshPublicKeyBlob(key));
    }
    throw KeyloftError::generic("invalid hash type");
}

std::string fingerprint(ByteView digest, HashType type, HashEncoding hashEncoding) {
    if (hashEncoding == HashEncoding::hex) return encoding::toHexString(digest);
    std::string text = encoding::base64Encode(digest);
    if (type != HashType::ssh) return text;
    text.insert(0, "SHA256:");
    if (text.ends_with('=')) text.pop_back();
    return text;
}

}  // namespace keyloft::pubkey
