#include "platform/crypto/digest_stream.hpp"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "base/error.hpp"
#include "platform/crypto/message_digest.hpp"
#include "platform/crypto/openssl_handles.hpp"

namespace keyloft::platform::crypto {

struct DigestStream::Context {
    openssl::MdContext md;
};

DigestStream::DigestStream(DigestAlgorithm algorithm)
    : algorithm_(algorithm), context_(std::make_unique<Context>()) {
    context_->md.reset(EVP_MD_CTX_new());
    if (!context_->md ||
        EVP_DigestInit_ex(context_->md.get(), messageDigest(algorithm), nullptr) != 1)
        throw PlatformError("digest computation failed");
}

DigestStream::DigestStream(const DigestStream& other)
    : algorithm_(other.algorithm_), context_(std::make_unique<Context>()) {
    context_->md.reset(EVP_MD_CTX_new());
    if (!context_->md || EVP_MD_CTX_copy_ex(context_->md.get(), other.context_->md.get()) != 1)
        throw PlatformError("digest computation failed");
}

DigestStream& DigestStream::operator=(const DigestStream& other) {
    if (this != &other) *this = DigestStream(other);
    return *this;
}

DigestStream::DigestStream(DigestStream&&) noexcept = default;
DigestStream& DigestStream::operator=(DigestStream&&) noexcept = default;
DigestStream::~DigestStream() = default;

void DigestStream::update(ByteView part) {
    if (EVP_DigestUpdate(context_->md.get(), part.data(), part.size()) != 1)
        throw PlatformError("digest computation failed");
}

Bytes DigestStream::finish() {
    Bytes out(digestSize(algorithm_));
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context_->md.get(), out.data(), &size) != 1)
        throw PlatformError("digest computation failed");
    out.resize(size);
    return out;
}

void startCryptoLibrary() {
    if (OPENSSL_init_crypto(0, nullptr) != 1) throw PlatformError("cannot start OpenSSL");
}

}  // namespace keyloft::platform::crypto
