// OpenSSL 3 keeps its constant-time OAEP check among the deprecated RSA functions; no provider
// call decodes a block that another device's private operation made.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "platform/key_service/rsa_encoding.hpp"

#include <openssl/rsa.h>

#include <algorithm>
#include <array>

#include "base/error.hpp"
#include "platform/crypto/message_digest.hpp"
#include "platform/crypto/random.hpp"

namespace keyloft::platform::key_service {
namespace {

// DigestInfo prefixes: SEQUENCE { AlgorithmIdentifier { OID, NULL }, OCTET STRING (the digest) }.
constexpr std::array<std::uint8_t, 19> sha256Prefix{0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                                    0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                    0x01, 0x05, 0x00, 0x04, 0x20};
constexpr std::array<std::uint8_t, 19> sha384Prefix{0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                                    0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                    0x02, 0x05, 0x00, 0x04, 0x30};

// MGF1 (RFC 8017, B.2.1): the hashes of the seed with a 4-byte counter, cut to the length.
Bytes mgf1(ByteView seed, std::size_t length, crypto::DigestAlgorithm hash) {
    Bytes mask;
    Bytes input(seed.begin(), seed.end());
    input.resize(seed.size() + 4);
    for (std::uint32_t counter = 0; mask.size() < length; ++counter) {
        for (int i = 0; i < 4; ++i)
            input[seed.size() + i] = static_cast<std::uint8_t>(counter >> (24 - 8 * i));
        const Bytes block = crypto::digest(hash, input);
        mask.insert(mask.end(), block.begin(), block.end());
    }
    mask.resize(length);
    return mask;
}

// A DER element of the content, which is shorter than 64 KiB: the length in its shortest form.
Bytes derElement(std::uint8_t tag, ByteView content) {
    Bytes out{tag};
    const auto length = content.size();
    if (length >= 0x100)
        out.push_back(0x82);
    else if (length >= 0x80)
        out.push_back(0x81);
    if (length >= 0x100) out.push_back(static_cast<std::uint8_t>(length >> 8));
    out.push_back(static_cast<std::uint8_t>(length));
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

// An unsigned INTEGER: a leading zero keeps a set high bit from reading as negative.
Bytes derInteger(ByteView value) {
    const auto first = std::find_if(value.begin(), value.end(), [](auto b) { return b != 0; });
    Bytes content(first, value.end());
    if (content.empty() || (content[0] & 0x80) != 0) content.insert(content.begin(), 0);
    return derElement(0x02, content);
}

}  // namespace

Bytes pkcs1SignaturePadding(ByteView digestInfo, std::size_t modulusBytes) {
    if (digestInfo.size() + 11 > modulusBytes)
        throw PlatformError("signing failed: the input is too long for the key");
    Bytes out(modulusBytes, 0xFF);
    out[0] = 0x00;
    out[1] = 0x01;
    out[modulusBytes - digestInfo.size() - 1] = 0x00;
    std::copy(digestInfo.begin(), digestInfo.end(), out.end() - digestInfo.size());
    return out;
}

Bytes digestInfo(crypto::DigestAlgorithm hash, ByteView digest) {
    const ByteView prefix = hash == crypto::DigestAlgorithm::sha256   ? ByteView(sha256Prefix)
                            : hash == crypto::DigestAlgorithm::sha384 ? ByteView(sha384Prefix)
                                                                      : ByteView();
    if (prefix.empty() || digest.size() != crypto::digestSize(hash))
        throw PlatformError("signing failed: unsupported hash");
    Bytes out(prefix.begin(), prefix.end());
    out.insert(out.end(), digest.begin(), digest.end());
    return out;
}

Bytes pssSignaturePadding(ByteView digest, crypto::DigestAlgorithm hash,
                          crypto::DigestAlgorithm mgf1Hash, std::size_t saltLength,
                          int modulusBits) {
    const std::size_t hashLength = crypto::digestSize(hash);
    const auto encodedBits = static_cast<std::size_t>(modulusBits - 1);
    const std::size_t encodedLength = (encodedBits + 7) / 8;
    if (digest.size() != hashLength || encodedLength < hashLength + saltLength + 2)
        throw PlatformError("signing failed: the PSS parameters do not suit the key");
    Bytes salt(saltLength);
    if (!salt.empty() && !crypto::randomBytes(salt))
        throw PlatformError("signing failed: the random generator failed");
    // H = Hash(00 x 8 || mHash || salt)
    Bytes prefixed(8, 0);
    prefixed.insert(prefixed.end(), digest.begin(), digest.end());
    prefixed.insert(prefixed.end(), salt.begin(), salt.end());
    const Bytes h = crypto::digest(hash, prefixed);
    // DB = PS || 01 || salt, masked with MGF1(H); the bits above emBits cleared.
    const std::size_t dbLength = encodedLength - hashLength - 1;
    Bytes db(dbLength - saltLength - 1, 0);
    db.push_back(0x01);
    db.insert(db.end(), salt.begin(), salt.end());
    const Bytes mask = mgf1(h, dbLength, mgf1Hash);
    for (std::size_t i = 0; i < dbLength; ++i) db[i] ^= mask[i];
    db[0] &= static_cast<std::uint8_t>(0xFF >> (8 * encodedLength - encodedBits));
    // EM = maskedDB || H || BC, as long as the modulus.
    const auto modulusBytes = static_cast<std::size_t>((modulusBits + 7) / 8);
    Bytes out(modulusBytes - encodedLength, 0);
    out.insert(out.end(), db.begin(), db.end());
    out.insert(out.end(), h.begin(), h.end());
    out.push_back(0xBC);
    return out;
}

crypto::SecretBytes oaepDecode(ByteView block, const RsaOaepParameters& parameters) {
    const auto size = static_cast<int>(block.size());
    crypto::SecretBytes message(block.size());
    const int length = RSA_padding_check_PKCS1_OAEP_mgf1(
        message.data(), size, block.data(), size, size, parameters.label.data(),
        static_cast<int>(parameters.label.size()), crypto::messageDigest(parameters.hash),
        crypto::messageDigest(parameters.mgf1Hash));
    if (length < 0) throw PlatformError("decryption failed");
    message.resize(static_cast<std::size_t>(length));
    return message;
}

Bytes rsaPublicKeyDer(ByteView modulus, ByteView exponent) {
    Bytes content = derInteger(modulus);
    const Bytes e = derInteger(exponent);
    content.insert(content.end(), e.begin(), e.end());
    return derElement(0x30, content);
}

}  // namespace keyloft::platform::key_service
