#pragma once

#include <optional>

#include "base/bytes.hpp"
#include "base/key_types.hpp"

namespace keyloft::platform::certificate_service {

// The public key of a DER certificate read straight from its SubjectPublicKeyInfo, without
// decoding the key itself: key type, size and the subjectPublicKey bits (EC point or DER
// RSAPublicKey). Nothing when the structure is not that of a certificate with an EC key on P-256,
// P-384, P-521 or an RSA key.
std::optional<PublicKeyAttributes> subjectPublicKeyOf(ByteView certificate);

}  // namespace keyloft::platform::certificate_service
