// The RSA encodings a TPM key's raw private operation signs and decrypts with, checked against
// OpenSSL: the raw operation is done here with a software key, and OpenSSL verifies or encrypts.
#include "platform/key_service/rsa_encoding.hpp"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "base/error.hpp"
#include "platform/crypto/message_digest.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/public_key.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::platform::key_service {
namespace {

using crypto::DigestAlgorithm;

const SoftwareKey& key() {
    static const SoftwareKey made = SoftwareKey::generateRSA(2048);
    return made;
}

// The private key's operation on a whole block, without padding: what the TPM does.
Bytes raw(ByteView block) {
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key().handle(), nullptr));
    std::size_t size = 256;
    Bytes out(size);
    EXPECT_EQ(EVP_PKEY_decrypt_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_decrypt(context.get(), out.data(), &size, block.data(), block.size()), 1);
    out.resize(size);
    return out;
}

// OpenSSL's verdict on a signature of the digest, with the padding the configure call sets.
template <class Configure>
bool verifies(ByteView signature, ByteView digest, DigestAlgorithm hash, Configure configure) {
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key().handle(), nullptr));
    return EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_CTX_set_signature_md(context.get(), crypto::messageDigest(hash)) == 1 &&
           configure(context.get()) &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(),
                           digest.size()) == 1;
}

TEST(RsaEncoding, Pkcs1SignaturesVerify) {
    for (const auto hash : {DigestAlgorithm::sha256, DigestAlgorithm::sha384}) {
        const Bytes digest = crypto::digest(hash, bytesOf("message"));
        const Bytes signature = raw(pkcs1SignaturePadding(digestInfo(hash, digest), 256));
        EXPECT_TRUE(verifies(signature, digest, hash, [](EVP_PKEY_CTX* c) {
            return EVP_PKEY_CTX_set_rsa_padding(c, RSA_PKCS1_PADDING) == 1;
        }));
    }
    EXPECT_THROW(pkcs1SignaturePadding(Bytes(246), 256), PlatformError);
}

TEST(RsaEncoding, PssSignaturesVerify) {
    struct Row {
        DigestAlgorithm hash, mgf;
        std::size_t salt;
    };
    for (const auto& [hash, mgf, salt] :
         {Row{DigestAlgorithm::sha256, DigestAlgorithm::sha256, 32},
          Row{DigestAlgorithm::sha256, DigestAlgorithm::sha1, 0},
          Row{DigestAlgorithm::sha384, DigestAlgorithm::sha384, 48},
          Row{DigestAlgorithm::sha512, DigestAlgorithm::sha256, 190}}) {
        const Bytes digest = crypto::digest(hash, bytesOf("message"));
        const Bytes signature = raw(pssSignaturePadding(digest, hash, mgf, salt, 2048));
        EXPECT_TRUE(verifies(signature, digest, hash, [&](EVP_PKEY_CTX* c) {
            return EVP_PKEY_CTX_set_rsa_padding(c, RSA_PKCS1_PSS_PADDING) == 1 &&
                   EVP_PKEY_CTX_set_rsa_mgf1_md(c, crypto::messageDigest(mgf)) == 1 &&
                   EVP_PKEY_CTX_set_rsa_pss_saltlen(c, static_cast<int>(salt)) == 1;
        })) << salt;
    }
    // No room for the salt.
    EXPECT_THROW(
        pssSignaturePadding(Bytes(64), DigestAlgorithm::sha512, DigestAlgorithm::sha512, 191, 2048),
        PlatformError);
}

TEST(RsaEncoding, OaepBlocksDecodeAndDamagedOnesFailAlike) {
    const RsaOaepParameters parameters{DigestAlgorithm::sha256, DigestAlgorithm::sha1,
                                       bytesOf("abc")};
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key().handle(), nullptr));
    ASSERT_EQ(EVP_PKEY_encrypt_init(context.get()), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha256()), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), EVP_sha1()), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set0_rsa_oaep_label(context.get(), OPENSSL_memdup("abc", 3), 3), 1);
    const Bytes message = bytesOf("secret");
    Bytes ciphertext(256);
    std::size_t size = ciphertext.size();
    ASSERT_EQ(
        EVP_PKEY_encrypt(context.get(), ciphertext.data(), &size, message.data(), message.size()),
        1);
    Bytes block = raw(ciphertext);
    const auto decoded = oaepDecode(block, parameters);
    EXPECT_EQ(Bytes(decoded.begin(), decoded.end()), message);
    block[100] ^= 1;
    EXPECT_THROW(oaepDecode(block, parameters), PlatformError);
    auto otherLabel = parameters;
    otherLabel.label = bytesOf("abd");
    EXPECT_THROW(oaepDecode(raw(ciphertext), otherLabel), PlatformError);
}

TEST(RsaEncoding, PublicKeyDerReadsBackAsTheKey) {
    const auto attributes = key().publicKeyAttributes();
    const auto numbers =
        PublicKey::fromData(keyTypeRSA, attributes.externalRepresentation).rsaNumbers();
    EXPECT_EQ(rsaPublicKeyDer(numbers.modulus, numbers.exponent),
              attributes.externalRepresentation);
}

}  // namespace
}  // namespace keyloft::platform::key_service
