#pragma once

#include <optional>

#include "base/bytes.hpp"
#include "pkcs11/call_form.hpp"
#include "pkcs11/mechanisms.hpp"
#include "pkcs11/token_objects.hpp"
#include "platform/crypto/digest_stream.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/key_service/private_key.hpp"

// The cryptographic operations of sessions. Each checks its mechanism and parameters against the
// key when it starts and throws CryptokiError with the return value the standard gives.
namespace keyloft::pkcs11 {

// What a signing mechanism signs: the data given so far, hashed or encoded as the mechanism says.
// Signing and verification share it.
class SignatureInput {
  public:
    // usage: CKA_SIGN for a private key, CKA_VERIFY for a public key.
    SignatureInput(const CK_MECHANISM& mechanism, const TokenObject& key, CK_ATTRIBUTE_TYPE usage);

    const KeyFacts& key() const { return key_; }
    std::size_t signatureSize() const;
    void update(ByteView part) { data_.insert(data_.end(), part.begin(), part.end()); }

    CallForm form;

  protected:
    Scheme scheme() const { return mechanism_->scheme; }
    const platform::key_service::RsaPssParameters& pss() const { return *pss_; }
    // The bytes the key signs: the digest (ECDSA, PSS) or the block to pad (PKCS#1 v1.5). Throws
    // CKR_DATA_LEN_RANGE when the data cannot be signed with the key.
    Bytes signedBytes() const;

  private:
    const Mechanism* mechanism_;
    KeyFacts key_;
    std::optional<platform::key_service::RsaPssParameters> pss_;
    Bytes data_;
};

class SignOperation : public SignatureInput {
  public:
    SignOperation(const CK_MECHANISM& mechanism, const TokenObject& key)
        : SignatureInput(mechanism, key, CKA_SIGN) {}

    // The signature over everything given so far.
    Bytes sign(const platform::key_service::PrivateKey& handle) const;
};

class VerifyOperation : public SignatureInput {
  public:
    VerifyOperation(const CK_MECHANISM& mechanism, const TokenObject& key)
        : SignatureInput(mechanism, key, CKA_VERIFY) {}

    // Throws CKR_SIGNATURE_LEN_RANGE or CKR_SIGNATURE_INVALID unless the signature is good for
    // everything given so far.
    void verify(ByteView signature) const;
};

// A digest of data given in one part or several.
class DigestOperation {
  public:
    explicit DigestOperation(const CK_MECHANISM& mechanism);

    std::size_t digestSize() const;
    void update(ByteView part);
    Bytes finish() const;

    CallForm form;

  private:
    platform::crypto::DigestStream stream_;
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

// RSA encryption with a public key, done by the module: RSA-OAEP (CKM_RSA_PKCS_OAEP) or
// PKCS#1 v1.5 (CKM_RSA_PKCS).
class EncryptOperation {
  public:
    EncryptOperation(const CK_MECHANISM& mechanism, const TokenObject& key);

    std::size_t ciphertextSize() const { return (key_.sizeInBits + 7) / 8; }
    // Throws CKR_DATA_LEN_RANGE for a message too long for the key and padding.
    Bytes encrypt(ByteView message) const;

  private:
    KeyFacts key_;
    std::optional<platform::key_service::RsaOaepParameters> oaep_;
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
