#pragma once

#include <string>
#include <string_view>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "platform/key_service/public_key.hpp"

namespace keyloft::pubkey {

// OpenSSH's key-type name for ECDSA keys held by a FIDO authenticator on P-256. Every EC key is
// written under this name, whatever its curve, with the application below.
inline constexpr std::string_view fidoEcdsaKeyTypeName = "sk-ecdsa-sha2-nistp256@openssh.com";
inline constexpr std::string_view fidoApplication = "ssh:";

// The SSH public-key blob of a card's key: a FIDO ECDSA key for EC, "ssh-rsa" for RSA. Throws
// KeyloftError for a key without an external representation or of another type, PlatformError
// when the key service cannot make a key of the representation.
Bytes sshPublicKeyBlob(const PublicKeyAttributes& key);

// "nistp256", "nistp384" or "nistp521" by the key's size. Throws KeyloftError when the key
// service reports no attributes.
std::string sshCurveName(const platform::key_service::PublicKey& key);

}  // namespace keyloft::pubkey
