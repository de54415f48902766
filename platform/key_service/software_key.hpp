#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "platform/crypto/openssl_key.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/key_service/private_key.hpp"
#include "platform/key_service/rsa_parameters.hpp"
#include "platform/key_service/signature_algorithm.hpp"

namespace keyloft::platform::key_service {

// A private key held by the key service in memory, for the duration of one command.
class SoftwareKey final : public PrivateKey {
  public:
    // A random key on P-256, P-384 or P-521.
    static SoftwareKey generateEC(int sizeInBits);
    // A random RSA key of 2048 or 3072 bits, public exponent 65537.
    static SoftwareKey generateRSA(int sizeInBits);
    // From the external representation: EC 0x04 || X || Y || K, each padded to the field size;
    // RSA the DER RSAPrivateKey. Throws PlatformError when the data is no such key.
    static SoftwareKey fromExternalRepresentation(std::string_view keyType, ByteView data);
    // An EC key from its private scalar (big-endian, padded to the field size) on P-256, P-384 or
    // P-521; the public point is computed. Throws PlatformError for a scalar out of range.
    static SoftwareKey fromPrivateScalar(int sizeInBits, ByteView scalar);

    // Takes over a key the key service read elsewhere (an EC key on a supported curve, or RSA).
    // Throws PlatformError for other keys.
    static SoftwareKey adopt(openssl::Pkey key);

    std::string keyType() const override { return keyType_; }
    int sizeInBits() const;
    PublicKeyAttributes publicKeyAttributes() const override;
    crypto::SecretBytes externalRepresentation() const;
    // EC keys only: K of the external representation.
    crypto::SecretBytes privateScalar() const;

    bool supports(SignatureAlgorithm algorithm) const;
    // Throws PlatformError for an algorithm of another key type.
    Bytes sign(SignatureAlgorithm algorithm, ByteView message) const override;
    // ECDH with a peer's uncompressed point on the same curve: the shared x-coordinate.
    crypto::SecretBytes agree(ByteView peerPoint) const override;

    // RSA keys only; PlatformError for other keys, a digest of the wrong size, or parameters the
    // key cannot take.
    Bytes signRsaPss(ByteView digest, const RsaPssParameters& parameters) const override;
    // RSA keys only. Any failure is the same PlatformError, telling nothing of the padding.
    crypto::SecretBytes decryptRsaOaep(ByteView ciphertext,
                                       const RsaOaepParameters& parameters) const override;

    evp_pkey_st* handle() const { return key_.get(); }

  private:
    SoftwareKey(std::string keyType, openssl::Pkey key)
        : keyType_(std::move(keyType)), key_(std::move(key)) {}

    std::string keyType_;
    openssl::Pkey key_;
};

}  // namespace keyloft::platform::key_service
