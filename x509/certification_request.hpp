#pragma once

#include "base/public_key_attributes.hpp"
#include "der/record.hpp"
#include "x509/certificate.hpp"
#include "x509/name.hpp"

namespace keyloft::x509 {

// A PKCS#10 CertificationRequest for the key, asking for every key usage, signed by the signer
// with ecdsa-with-SHA384 (EC keys) or sha384WithRSAEncryption (RSA keys).
der::Record buildCertificationRequest(const Name& subject, const PublicKeyAttributes& publicKey,
                                      const Signer& sign);

}  // namespace keyloft::x509
