#pragma once

namespace keyloft::platform::key_service {

// Named <scheme><input: Message or Digest><encoding><hash>, so that digest-input ECDSA, RSA-PSS
// and the like can join without renaming these.
enum class SignatureAlgorithm {
    ecdsaSignatureMessageX962SHA384,    // ECDSA over SHA-384 of the message, DER signature
    rsaSignatureMessagePKCS1v15SHA256,  // RSASSA-PKCS1-v1_5 with SHA-256
    rsaSignatureMessagePKCS1v15SHA384,  // RSASSA-PKCS1-v1_5 with SHA-384
    ecdsaSignatureDigestX962,           // ECDSA over the caller's digest, DER signature
    rsaSignatureDigestPKCS1v15Raw,      // PKCS#1 v1.5 type-1 padding over the caller's bytes
                                        // (a DigestInfo), nothing hashed
};

}  // namespace keyloft::platform::key_service
