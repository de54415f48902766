#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "der/ber_tlv_record.hpp"
#include "x509/validity.hpp"

namespace keyloft::x509 {

// A subject; absent and empty fields differ (an empty one still gets its RDN).
struct Name {
    std::optional<std::string> commonName;
    std::optional<std::string> email;
    std::optional<std::string> organization;
    std::optional<std::string> organizationalUnit;
    std::optional<std::string> locality;
    std::optional<std::string> stateOrProvince;
    std::optional<std::string> country;

    // Built on first use and kept, so issuer and subject are the same bytes; don't change the
    // fields after.
    const der::BerTlvRecord& der() const;

  private:
    mutable std::optional<der::BerTlvRecord> der_;
};

using UuidSource = std::function<std::array<std::uint8_t, 16>()>;
using Signer = std::function<Bytes(ByteView toBeSigned)>;

struct X509Certificate {
    der::BerTlvRecord pubKeyBERTLV;
    Bytes pubKeyHash;
    Name subject;
    Instant validFrom;
    Instant validTo;
    std::array<std::uint8_t, 16> serial{};
    bool keyManagement = false;

    // Throws "unsupported public key EC key size: <n>", "unsupported public key type: <type>" or
    // the validity message for a days part that is not a whole number.
    static X509Certificate create(const PublicKeyAttributes& publicKey, Bytes pubKeyHash,
                                  std::optional<std::string_view> specification, bool keyManagement,
                                  const UuidSource& uuids);

    // "subject|days": subject components split at ';' in the order CN;E;OU;O;L;ST;C.
    void applySpecification(std::optional<std::string_view> specification);
};

// SubjectPublicKeyInfo of an EC (256/384/521) or RSA key.
der::BerTlvRecord subjectPublicKeyInfo(const PublicKeyAttributes& publicKey);

// AlgorithmIdentifier of a signature OID of the table, or nothing.
std::optional<der::BerTlvRecord> signatureAlgorithmIdentifier(ByteView signatureOid);

// The signed Certificate; throws "Unsupported signature OID", or what the signer throws.
der::BerTlvRecord buildCertificate(const X509Certificate& model, ByteView signatureOid,
                                   const Signer& sign);

}  // namespace keyloft::x509
