#pragma once

#include "base/bytes.hpp"

namespace keyloft::platform::crypto {

enum class DigestAlgorithm { sha1, sha224, sha256, sha384, sha512 };

Bytes digest(DigestAlgorithm algorithm, ByteView data);
std::size_t digestSize(DigestAlgorithm algorithm);

Bytes sha1(ByteView data);
Bytes sha256(ByteView data);
Bytes sha384(ByteView data);
Bytes hmacSha1(ByteView key, ByteView message);

}  // namespace keyloft::platform::crypto
