#pragma once

#include <optional>
#include <string>

#include "base/bytes.hpp"
#include "card/identity_creation.hpp"
#include "keys/key_type.hpp"

// Changes applications make to the user's card: each is one write transaction holding the card
// for its whole read-change-write, writing the very items and stored-key records the tool writes,
// so that the tool sees them and the module sees the tool's. Failures throw CryptokiError or the
// tool's errors.
namespace keyloft::pkcs11 {

// What an application asked of a new key pair.
struct KeyPairRequest {
    KeyType type;
    std::optional<std::string> label;  // the hash in hex when none is given
    bool canSign = true;
    bool canDecryptOrDerive = true;  // decrypt for an RSA key, derive for an EC key
};
// Makes the key and its self-signed certificate, writing nothing: the key processor's part.
card::NewIdentity makeIdentity(const KeyPairRequest& request);
// Writes the identity made and answers its hash.
Bytes addIdentity(card::NewIdentity identity);

// Gives the identity the certificate (DER) in place of its own, and the label when one is given.
// Throws CKR_TEMPLATE_INCONSISTENT when the card holds no identity of the certificate's key.
void storeCertificate(ByteView certificate, ByteView hash, const std::optional<std::string>& label);

// Throws CKR_OBJECT_HANDLE_INVALID when the identity has gone meanwhile.
void relabelIdentity(ByteView hash, const std::string& label);

// Removes the identity's items and stored-key record, as delete-identity does.
void removeIdentity(ByteView hash);

}  // namespace keyloft::pkcs11
