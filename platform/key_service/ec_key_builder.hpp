#pragma once

#include "base/bytes.hpp"
#include "platform/crypto/openssl_handles.hpp"

// EC keys built from their parts through OpenSSL's provider, never through a key context that an
// application's default engine could take over.
namespace keyloft::platform::key_service {

// The name under which OpenSSL's provider makes EC keys from parameters. It is the algorithm's
// OID rather than "EC" on purpose: OpenSSL maps "EC" to its legacy key type, and an application
// that made a PKCS#11 engine its default (openssl -engine, engine-based openssl.cnf) would then
// receive our key creation, which engines cannot do.
inline constexpr const char* ecKeyManagementName = "1.2.840.10045.2.1";

// The OpenSSL curve name of an EC key size, or nullptr.
const char* curveNameForSize(int sizeInBits);

// Bytes of one coordinate of a point on the curve of the given size.
int fieldBytes(int sizeInBits);

// The curve size whose uncompressed point (1 + 2 * field size bytes) has the length; 0 for none.
int ecSizeForPointLength(std::size_t length);

// An EC key on the curve of the given size from its uncompressed point and, for a key pair, its
// private scalar; nullptr when OpenSSL refuses the values.
openssl::Pkey ecKeyFromParts(int sizeInBits, ByteView point, const BIGNUM* scalar = nullptr);

// A public EC key from its uncompressed point on the curve of the given size.
openssl::Pkey ecPublicKeyFromPoint(int sizeInBits, ByteView point);

// The uncompressed public point of a private scalar (big-endian, padded to the field size).
// Throws PlatformError for a scalar out of range.
Bytes publicPointOf(int sizeInBits, ByteView scalar);

// A key pair from a point and scalar already known to belong together.
openssl::Pkey ecKeyPairKey(int sizeInBits, ByteView point, ByteView scalar);

}  // namespace keyloft::platform::key_service
