#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/software_key.hpp"
#include "unit/platform_key_service/openssl_digest.hpp"

namespace keyloft::platform::key_service {
namespace {

using crypto::digest;
using crypto::DigestAlgorithm;
using crypto::SecretBytes;

using testing::opensslDigest;

const SoftwareKey& rsaKey() {
    static const SoftwareKey key = SoftwareKey::adopt(openssl::Pkey(EVP_RSA_gen(2048)));
    return key;
}

// OAEP encryption by OpenSSL alone, as a peer holding the public key would do it.
Bytes encrypt(ByteView plaintext, const RsaOaepParameters& p) {
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, rsaKey().handle(), nullptr));
    void* label = p.label.empty() ? nullptr : OPENSSL_memdup(p.label.data(), p.label.size());
    std::size_t size = 0;
    if (EVP_PKEY_encrypt_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), opensslDigest(p.hash)) != 1 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), opensslDigest(p.mgf1Hash)) != 1 ||
        (label != nullptr && EVP_PKEY_CTX_set0_rsa_oaep_label(
                                 context.get(), label, static_cast<int>(p.label.size())) != 1) ||
        EVP_PKEY_encrypt(context.get(), nullptr, &size, plaintext.data(), plaintext.size()) != 1) {
        ADD_FAILURE() << "encryption failed";
        return {};
    }
    Bytes ciphertext(size);
    EXPECT_EQ(EVP_PKEY_encrypt(context.get(), ciphertext.data(), &size, plaintext.data(),
                               plaintext.size()),
              1);
    ciphertext.resize(size);
    return ciphertext;
}

const Bytes secret = bytesOf("a 32-byte secret for the session");

class RsaOaep : public ::testing::TestWithParam<RsaOaepParameters> {};

TEST_P(RsaOaep, DecryptsWhatOpenSslEncrypted) {
    const auto plaintext = rsaKey().decryptRsaOaep(encrypt(secret, GetParam()), GetParam());
    EXPECT_EQ(Bytes(plaintext.begin(), plaintext.end()), secret);
}

INSTANTIATE_TEST_SUITE_P(
    HashMgfLabel, RsaOaep,
    ::testing::Values(
        RsaOaepParameters{DigestAlgorithm::sha1, DigestAlgorithm::sha1, {}},
        RsaOaepParameters{DigestAlgorithm::sha256, DigestAlgorithm::sha256, bytesOf("label")},
        RsaOaepParameters{DigestAlgorithm::sha256, DigestAlgorithm::sha1, {}},
        RsaOaepParameters{DigestAlgorithm::sha384, DigestAlgorithm::sha224,
                          bytesOf("another label")},
        RsaOaepParameters{DigestAlgorithm::sha512, DigestAlgorithm::sha512, Bytes{0x00, 0xFF}}),
    [](const auto& test) {
        return testing::digestName(test.param.hash) + "_mgf1" +
               testing::digestName(test.param.mgf1Hash) + "_label" +
               std::to_string(test.param.label.size());
    });

// Every way to fail reads the same, so callers cannot tell padding from label from hash.
TEST(RsaOaepFailures, AllLookAlike) {
    const RsaOaepParameters used{DigestAlgorithm::sha256, DigestAlgorithm::sha256,
                                 bytesOf("label")};
    const Bytes ciphertext = encrypt(secret, used);
    auto tampered = ciphertext;
    tampered[100] ^= 0x01;
    const std::vector<std::pair<std::string, std::pair<Bytes, RsaOaepParameters>>> cases{
        {"wrong label", {ciphertext, {used.hash, used.mgf1Hash, bytesOf("lab3l")}}},
        {"no label", {ciphertext, {used.hash, used.mgf1Hash, {}}}},
        {"other hash", {ciphertext, {DigestAlgorithm::sha384, used.mgf1Hash, used.label}}},
        {"other mgf1 hash", {ciphertext, {used.hash, DigestAlgorithm::sha1, used.label}}},
        {"tampered", {tampered, used}},
        {"short", {Bytes(ciphertext.begin(), ciphertext.end() - 1), used}},
    };
    for (const auto& [name, input] : cases) {
        try {
            rsaKey().decryptRsaOaep(input.first, input.second);
            ADD_FAILURE() << name << " decrypted";
        } catch (const PlatformError& error) {
            EXPECT_STREQ(error.what(), "decryption failed") << name;
        }
    }
    EXPECT_THROW(SoftwareKey::generateEC(256).decryptRsaOaep(ciphertext, used), PlatformError);
}

}  // namespace
}  // namespace keyloft::platform::key_service
