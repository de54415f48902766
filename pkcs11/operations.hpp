#pragma once

#include <optional>

#include "base/bytes.hpp"
#include "pkcs11/mechanisms.hpp"
#include "pkcs11/token_objects.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/key_service/private_key.hpp"

// The cryptographic operations of sessions. Each checks its mechanism and parameters against the
// key when it starts and throws CryptokiError with the return value the standard gives.
namespace keyloft::pkcs11 {

class SignOperation {
  public:
    SignOperation(const CK_MECHANISM& mechanism, const TokenObject& key);

    const KeyFacts& key() const { return key_; }
    std::size_t signatureSize() const;
    void update(ByteView part) { data_.insert(data_.end(), part.begin(), part.end()); }
    // The signature over everything given so far.
    Bytes sign(const platform::key_service::PrivateKey& handle) const;

  private:
    const Mechanism* mechanism_;
    KeyFacts key_;
    std::optional<platform::key_service::RsaPssParameters> pss_;
    Bytes data_;
};

class DecryptOperation {
  public:
    DecryptOperation(const CK_MECHANISM& mechanism, const TokenObject& key);

    const KeyFacts& key() const { return key_; }
    // The most the plaintext can take.
    std::size_t plaintextLimit() const { return (key_.sizeInBits + 7) / 8; }
    platform::crypto::SecretBytes decrypt(const platform::key_service::PrivateKey& handle,
                                          ByteView ciphertext) const;

  private:
    KeyFacts key_;
    platform::key_service::RsaOaepParameters oaep_;
};

// ECDH with the key: the peer's point from CK_ECDH1_DERIVE_PARAMS (raw or as a DER OCTET STRING),
// no key derivation function.
class EcdhDerivation {
  public:
    EcdhDerivation(const CK_MECHANISM& mechanism, const TokenObject& key);

    const KeyFacts& key() const { return key_; }
    platform::crypto::SecretBytes derive(const platform::key_service::PrivateKey& handle) const;

  private:
    KeyFacts key_;
    Bytes peerPoint_;
};

}  // namespace keyloft::pkcs11
