#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/public_key_attributes.hpp"
#include "der/ber_tlv_record.hpp"
#include "x509/certificate.hpp"

namespace keyloft::x509 {

enum class SubjectAttribute {
    commonName,
    email,
    organizationalUnit,
    organization,
    locality,
    stateOrProvince,
    country
};

// RDNs in the order given, one attribute each.
using RequestSubject = std::vector<std::pair<SubjectAttribute, std::string>>;

// A PKCS#10 CertificationRequest for the key, asking for every key usage, signed by the signer
// with ecdsa-with-SHA384 (EC keys) or sha384WithRSAEncryption (RSA keys).
der::BerTlvRecord buildCertificationRequest(const RequestSubject& subject,
                                            const PublicKeyAttributes& publicKey,
                                            const Signer& sign);

}  // namespace keyloft::x509
