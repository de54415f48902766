#pragma once

#include <cstddef>
#include <string_view>

#include "base/bytes.hpp"
#include "platform/crypto/openssl_key.hpp"
#include "platform/key_service/rsa_parameters.hpp"

namespace keyloft::platform::key_service {

// Checks signatures with a public key as the card publishes it. Each check answers false for a
// signature that does not verify, whatever its defect.
class SignatureCheck {
  public:
    // keyTypeEC with an uncompressed point, or keyTypeRSA with a DER RSAPublicKey. Throws
    // PlatformError for anything else.
    SignatureCheck(std::string_view keyType, ByteView publicKeyData);

    // ECDSA over the digest (truncated to the curve as ECDSA does), r || s at the field size.
    bool ecdsa(ByteView digest, ByteView rawSignature) const;
    // PKCS#1 v1.5 type-1 padding over the block (a DigestInfo, or whatever the signer signed).
    bool rsaPkcs1(ByteView block, ByteView signature) const;
    bool rsaPss(ByteView digest, ByteView signature, const RsaPssParameters& parameters) const;

  private:
    openssl::Pkey key_;
    std::size_t fieldBytes_ = 0;  // EC keys
};

}  // namespace keyloft::platform::key_service
