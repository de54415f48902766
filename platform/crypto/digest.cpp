#include "platform/crypto/digest.hpp"

#include "platform/crypto/message_digest.hpp"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "base/error.hpp"

namespace keyloft::platform::crypto {
namespace {

Bytes digest(const EVP_MD* md, ByteView data) {
    Bytes out(static_cast<std::size_t>(EVP_MD_get_size(md)));
    unsigned int size = 0;
    if (EVP_Digest(data.data(), data.size(), out.data(), &size, md, nullptr) != 1) {
        throw PlatformError("digest computation failed");
    }
    out.resize(size);
    return out;
}

}  // namespace

const EVP_MD* messageDigest(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::sha1:
            return EVP_sha1();
        case DigestAlgorithm::sha224:
            return EVP_sha224();
        case DigestAlgorithm::sha256:
            return EVP_sha256();
        case DigestAlgorithm::sha384:
            return EVP_sha384();
        case DigestAlgorithm::sha512:
            return EVP_sha512();
    }
    throw PlatformError("unknown digest algorithm");
}

Bytes digest(DigestAlgorithm algorithm, ByteView data) {
    return digest(messageDigest(algorithm), data);
}

std::size_t digestSize(DigestAlgorithm algorithm) {
    return static_cast<std::size_t>(EVP_MD_get_size(messageDigest(algorithm)));
}

Bytes sha1(ByteView data) {
    return digest(EVP_sha1(), data);
}
Bytes sha256(ByteView data) {
    return digest(EVP_sha256(), data);
}
Bytes sha384(ByteView data) {
    return digest(EVP_sha384(), data);
}

Bytes hmacSha1(ByteView key, ByteView message) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    if (HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), message.data(), message.size(),
             out.data(), &size) == nullptr) {
        throw PlatformError("HMAC computation failed");
    }
    out.resize(size);
    return out;
}

}  // namespace keyloft::platform::crypto
