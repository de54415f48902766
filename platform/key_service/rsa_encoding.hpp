#pragma once

#include <cstddef>

#include "base/bytes.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/key_service/rsa_parameters.hpp"

// RSA encodings made without the private key, for keys whose private operation happens elsewhere
// (inside a TPM): the input of the raw operation for a signature, and the public key's DER.
namespace keyloft::platform::key_service {

// EMSA-PKCS1-v1_5 of a DigestInfo (or any bytes signed as they are): 00 01 FF.. 00 T, as long
// as the modulus. PlatformError when T leaves fewer than eight bytes of padding.
Bytes pkcs1SignaturePadding(ByteView digestInfo, std::size_t modulusBytes);

// The DigestInfo of a SHA-256 or SHA-384 digest; PlatformError for other hashes.
Bytes digestInfo(crypto::DigestAlgorithm hash, ByteView digest);

// EMSA-PSS (RFC 8017, 9.1.1) of a digest made with `hash`, MGF1 with `mgf1Hash` and a random
// salt of the length, left-padded with zeros to the modulus's length. PlatformError when the
// digest's length is not the hash's or the salt does not fit.
Bytes pssSignaturePadding(ByteView digest, crypto::DigestAlgorithm hash,
                          crypto::DigestAlgorithm mgf1Hash, std::size_t saltLength,
                          int modulusBits);

// The message of an EME-OAEP block (as long as the modulus) that the raw private operation gave,
// checked in constant time. Any failure is the same PlatformError, telling nothing of the padding.
crypto::SecretBytes oaepDecode(ByteView block, const RsaOaepParameters& parameters);

// The DER RSAPublicKey of a modulus and exponent (unsigned big-endian).
Bytes rsaPublicKeyDer(ByteView modulus, ByteView exponent);

}  // namespace keyloft::platform::key_service
