#pragma once

#include <array>
#include <functional>
#include <optional>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "der/record.hpp"
#include "x509/name.hpp"
#include "x509/validity.hpp"

namespace keyloft::x509 {

using UuidSource = std::function<std::array<std::uint8_t, 16>()>;
using Signer = std::function<Bytes(ByteView toBeSigned)>;

struct X509Certificate {
    der::Record pubKeyBERTLV;
    Bytes pubKeyHash;
    Name subject;
    Instant validFrom;
    Instant validTo;
    std::array<std::uint8_t, 16> serial{};
    bool keyManagement = false;

    // Valid for the default validity from now. Throws "unsupported public key EC key size: <n>"
    // or "unsupported public key type: <type>".
    static X509Certificate create(const PublicKeyAttributes& publicKey, Bytes pubKeyHash,
                                  Name subject, bool keyManagement, const UuidSource& uuids);
};

// SubjectPublicKeyInfo of an EC (256/384/521) or RSA key.
der::Record subjectPublicKeyInfo(const PublicKeyAttributes& publicKey);

// AlgorithmIdentifier of a signature OID of the table, or nothing.
std::optional<der::Record> signatureAlgorithmIdentifier(ByteView signatureOid);

// The signed Certificate, the subject also its issuer; throws "Unsupported signature OID", or what
// the signer throws.
der::Record buildCertificate(const X509Certificate& model, ByteView signatureOid,
                             const Signer& sign);

}  // namespace keyloft::x509
