#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "platform/crypto/openssl_key.hpp"

namespace keyloft::platform::key_service {

// A public key rebuilt by the key service from its external representation.
class PublicKey {
  public:
    struct RsaNumbers {
        Bytes modulus;   // unsigned big-endian, no leading zero bytes
        Bytes exponent;  // likewise
    };

    // keyTypeEC: an uncompressed point (0x04, X, Y) on P-256, P-384 or P-521, told apart by its
    // length. keyTypeRSA: a DER RSAPublicKey. Throws PlatformError when the bytes are not such a
    // key or the key type is neither.
    static PublicKey fromData(std::string_view keyType, ByteView data);

    const std::string& keyType() const { return keyType_; }

    // Key type, size in bits and external representation; nothing when the key service cannot
    // report them.
    std::optional<PublicKeyAttributes> attributes() const;

    // EC: the uncompressed point; RSA: the DER RSAPublicKey. Throws PlatformError.
    Bytes externalRepresentation() const;

    // Throws PlatformError for a key that is not RSA.
    RsaNumbers rsaNumbers() const;

  private:
    using Key = openssl::Pkey;

    PublicKey(std::string keyType, Key key) : keyType_(std::move(keyType)), key_(std::move(key)) {}

    std::string keyType_;
    Key key_;
};

}  // namespace keyloft::platform::key_service
