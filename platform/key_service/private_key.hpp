#pragma once

#include <string>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/key_service/rsa_parameters.hpp"
#include "platform/key_service/signature_algorithm.hpp"

namespace keyloft::platform::key_service {

using crypto::SecretBytes;

// A private key the card can use, wherever it lives: in memory as a software key, or inside a key
// processor. Nothing here hands out the private key itself.
class PrivateKey {
  public:
    virtual ~PrivateKey() = default;

    // keyTypeEC or keyTypeRSA.
    virtual std::string keyType() const = 0;
    virtual PublicKeyAttributes publicKeyAttributes() const = 0;
    // The application label: SHA-1 of the public key's external representation.
    Bytes applicationLabel() const;

    // Throws PlatformError for an algorithm the key cannot do.
    virtual Bytes sign(SignatureAlgorithm algorithm, ByteView message) const = 0;
    // ECDH with a peer's uncompressed point on the same curve: the shared x-coordinate.
    virtual crypto::SecretBytes agree(ByteView peerPoint) const = 0;

    // RSA keys only: the others throw PlatformError.
    virtual Bytes signRsaPss(ByteView digest, const RsaPssParameters& parameters) const;
    virtual crypto::SecretBytes decryptRsaOaep(ByteView ciphertext,
                                               const RsaOaepParameters& parameters) const;

  protected:
    PrivateKey() = default;
    PrivateKey(const PrivateKey&) = default;
    PrivateKey(PrivateKey&&) = default;
    PrivateKey& operator=(const PrivateKey&) = default;
    PrivateKey& operator=(PrivateKey&&) = default;
};

}  // namespace keyloft::platform::key_service
