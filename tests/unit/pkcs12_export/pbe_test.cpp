#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>

#include "base/error.hpp"
#include "pkcs12_export/p12_pbe_gen.hpp"
#include "pkcs12_export/pbe_encrypt.hpp"
#include "pkcs12_export/pfx.hpp"
#include "platform/crypto/legacy_provider.hpp"
#include "support/hex.hpp"

namespace keyloft::pkcs12_export {
namespace {

// OpenSSL's own PKCS#12 key derivation, for comparison; it takes the password as UTF-8.
Bytes opensslDerivation(const std::string& password, ByteView salt, int iterations, int id,
                        std::size_t length) {
    Bytes out(length);
    EXPECT_EQ(
        PKCS12_key_gen_utf8(password.c_str(), static_cast<int>(password.size()),
                            const_cast<unsigned char*>(salt.data()), static_cast<int>(salt.size()),
                            id, iterations, static_cast<int>(length), out.data(), EVP_sha1()),
        1);
    return out;
}

Bytes derive(std::optional<std::string_view> password, ByteView salt, std::uint32_t iterations,
             PbeId id, std::size_t length) {
    Bytes out(length, 0xEE);
    EXPECT_EQ(p12_pbe_gen(password, salt, iterations, id, out), 0);
    return out;
}

struct Case {
    std::string password;
    std::size_t saltSize;
    int iterations;
    PbeId id;
    std::size_t length;
};

class Derivation : public ::testing::TestWithParam<Case> {};

TEST_P(Derivation, AgreesWithAnIndependentImplementation) {
    const auto& c = GetParam();
    Bytes salt(c.saltSize);
    for (std::size_t i = 0; i < salt.size(); ++i)
        salt[i] = static_cast<std::uint8_t>(0xA5 ^ (i * 7));
    EXPECT_EQ(derive(c.password, salt, static_cast<std::uint32_t>(c.iterations), c.id, c.length),
              opensslDerivation(c.password, salt, c.iterations, static_cast<int>(c.id), c.length));
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, Derivation,
    ::testing::Values(Case{"", 8, 2048, PbeId::mac, 20}, Case{"secret", 8, 2048, PbeId::key, 24},
                      Case{"secret", 8, 2048, PbeId::iv, 8}, Case{"secret", 8, 1, PbeId::key, 5},
                      Case{"pa\xC3\xA9ss \xF0\x9F\x94\x91", 8, 3, PbeId::key, 24},  // beyond U+FFFF
                      Case{std::string(70, 'x'), 65, 10, PbeId::mac, 41},
                      Case{"odd", 1, 2, PbeId::iv, 100}));

TEST(Derivation, EdgeCases) {
    const Bytes salt(8, 0xFF);
    EXPECT_EQ(derive("p", salt, 0, PbeId::key, 24), derive("p", salt, 1, PbeId::key, 24));
    const Bytes twentyFour = derive("p", salt, 5, PbeId::key, 24);
    EXPECT_EQ(Bytes(twentyFour.begin(), twentyFour.begin() + 20),
              derive("p", salt, 5, PbeId::key, 20));
    EXPECT_TRUE(derive("p", salt, 5, PbeId::key, 0).empty());

    Bytes untouched(8, 0xEE);
    EXPECT_EQ(p12_pbe_gen(std::nullopt, salt, 1, PbeId::key, untouched), -1);
    EXPECT_EQ(p12_pbe_gen("p", {}, 1, PbeId::key, untouched), -1);
    EXPECT_EQ(untouched, Bytes(8, 0xEE));
    try {
        pbeKey("p", {}, 1, PbeId::key, 5, "Failed to generate RC2 key");
        FAIL();
    } catch (const KeyloftError& error) {
        EXPECT_EQ(error.text(), "Failed to generate RC2 key");
    }
}

Bytes opensslDecrypt(const char* cipher, ByteView key, ByteView iv, ByteView ciphertext) {
    platform::crypto::loadLegacyProvider();
    std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> algorithm(
        EVP_CIPHER_fetch(nullptr, cipher, nullptr), EVP_CIPHER_free);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                            EVP_CIPHER_CTX_free);
    EVP_DecryptInit_ex2(context.get(), algorithm.get(), nullptr, nullptr, nullptr);
    EVP_CIPHER_CTX_set_key_length(context.get(), static_cast<int>(key.size()));
    EVP_DecryptInit_ex2(context.get(), nullptr, key.data(), iv.data(), nullptr);
    Bytes out(ciphertext.size() + 8);
    int written = 0;
    int last = 0;
    EXPECT_EQ(EVP_DecryptUpdate(context.get(), out.data(), &written, ciphertext.data(),
                                static_cast<int>(ciphertext.size())),
              1);
    EXPECT_EQ(EVP_DecryptFinal_ex(context.get(), out.data() + written, &last), 1);
    out.resize(static_cast<std::size_t>(written + last));
    return out;
}

TEST(PbeEncrypt, BothCiphersDecryptWithTheDerivedKeyAndIv) {
    const Bytes salt{1, 2, 3, 4, 5, 6, 7, 8};
    for (const std::size_t size : {std::size_t{16}, std::size_t{17}, std::size_t{0}}) {
        const Bytes plaintext(size, 0x3C);
        const Bytes rc2 =
            pbeEncrypt(plaintext, "pw", salt, 2048, 40, platform::crypto::BlockCipher::rc2, 8);
        EXPECT_EQ(rc2.size(), (size / 8 + 1) * 8);
        EXPECT_EQ(opensslDecrypt("RC2-40-CBC", opensslDerivation("pw", salt, 2048, 1, 5),
                                 opensslDerivation("pw", salt, 2048, 2, 8), rc2),
                  plaintext);
        const Bytes des = pbeEncrypt(plaintext, "pw", salt, 2048, 192,
                                     platform::crypto::BlockCipher::tripleDes, 8);
        EXPECT_EQ(opensslDecrypt("DES-EDE3-CBC", opensslDerivation("pw", salt, 2048, 1, 24),
                                 opensslDerivation("pw", salt, 2048, 2, 8), des),
                  plaintext);
    }
}

TEST(PrivateKeyInfo, EcLayoutAndRefusals) {
    UnwrappedKey key{"ec", 256, platform::crypto::SecretBytes(97, 0x11)};
    key.externalRepresentation[0] = 0x04;
    const auto info = privateKeyInfo(key);
    EXPECT_EQ(info.size(), 138U);
    EXPECT_EQ(testing::hex(ByteView(info.data(), 36)),
              "308187020100301306072a8648ce3d020106082a8648ce3d030107046d306b0201010420");
    key.sizeInBits = 192;
    EXPECT_THROW(privateKeyInfo(key), KeyloftError);
    key.keyType = "dsa";
    EXPECT_THROW(privateKeyInfo(key), KeyloftError);
}

}  // namespace
}  // namespace keyloft::pkcs12_export
