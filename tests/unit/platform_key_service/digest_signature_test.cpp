#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <limits>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/software_key.hpp"
#include "support/hex.hpp"
#include "unit/platform_key_service/openssl_digest.hpp"

namespace keyloft::platform::key_service {
namespace {

using crypto::digest;
using crypto::DigestAlgorithm;
using crypto::SecretBytes;

constexpr auto ecdsaDigest = SignatureAlgorithm::ecdsaSignatureDigestX962;
constexpr auto rsaRaw = SignatureAlgorithm::rsaSignatureDigestPKCS1v15Raw;

using testing::opensslDigest;

// Verifies over the message with OpenSSL hashing it itself; configure sets RSA padding options.
template <class Configure>
bool verifiesMessage(EVP_PKEY* key, DigestAlgorithm hash, ByteView message, ByteView signature,
                     Configure configure) {
    openssl::MdContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* parameters = nullptr;
    return EVP_DigestVerifyInit(context.get(), &parameters, opensslDigest(hash), nullptr, key) ==
               1 &&
           configure(parameters) &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

const SoftwareKey& rsaKey() {
    static const SoftwareKey key = SoftwareKey::adopt(openssl::Pkey(EVP_RSA_gen(2048)));
    return key;
}

const Bytes message = bytesOf("message to sign");

// Every curve with every hash: shorter digests are used as they are, longer ones truncated to the
// order's size, as a verifier hashing the message itself expects.
class EcdsaOverDigest : public ::testing::TestWithParam<std::tuple<int, DigestAlgorithm>> {};

TEST_P(EcdsaOverDigest, VerifiesAsEcdsaOverTheMessage) {
    const auto [bits, hash] = GetParam();
    const auto key = SoftwareKey::generateEC(bits);
    ASSERT_TRUE(key.supports(ecdsaDigest));
    const auto signature = key.sign(ecdsaDigest, digest(hash, message));
    const auto ecdsa = [](EVP_PKEY_CTX*) { return true; };
    EXPECT_TRUE(verifiesMessage(key.handle(), hash, message, signature, ecdsa));
    EXPECT_FALSE(verifiesMessage(key.handle(), hash, bytesOf("other message"), signature, ecdsa));
}

INSTANTIATE_TEST_SUITE_P(
    CurvesAndHashes, EcdsaOverDigest,
    ::testing::Combine(::testing::Values(256, 384, 521),
                       ::testing::Values(DigestAlgorithm::sha1, DigestAlgorithm::sha256,
                                         DigestAlgorithm::sha384, DigestAlgorithm::sha512)));

struct RawPkcs1Case {
    DigestAlgorithm hash;
    std::string digestInfoPrefix;
};

class RawPkcs1 : public ::testing::TestWithParam<RawPkcs1Case> {};

TEST_P(RawPkcs1, OverADigestInfoVerifiesAsHashWithRsa) {
    const auto& key = rsaKey();
    ASSERT_TRUE(key.supports(rsaRaw));
    const Bytes digestInfo =
        concat({testing::unhex(GetParam().digestInfoPrefix), digest(GetParam().hash, message)});
    const auto signature = key.sign(rsaRaw, digestInfo);
    EXPECT_EQ(signature.size(), 256U);
    EXPECT_TRUE(verifiesMessage(
        key.handle(), GetParam().hash, message, signature, [](EVP_PKEY_CTX* context) {
            return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1;
        }));
}

INSTANTIATE_TEST_SUITE_P(Hashes, RawPkcs1,
                         ::testing::Values(RawPkcs1Case{DigestAlgorithm::sha1,
                                                        "3021300906052b0e03021a05000414"},
                                           RawPkcs1Case{DigestAlgorithm::sha256,
                                                        "3031300d060960864801650304020105000420"},
                                           RawPkcs1Case{DigestAlgorithm::sha512,
                                                        "3051300d060960864801650304020305000440"}));

TEST(RawPkcs1Input, MustLeaveRoomForThePadding) {
    // Type-1 padding takes at least 11 of the modulus's 256 bytes.
    EXPECT_EQ(rsaKey().sign(rsaRaw, Bytes(245, 0x5A)).size(), 256U);
    EXPECT_THROW(rsaKey().sign(rsaRaw, Bytes(246, 0x5A)), PlatformError);
}

TEST(DigestSignatures, BelongToTheirKeyType) {
    const auto ec = SoftwareKey::generateEC(256);
    EXPECT_FALSE(ec.supports(rsaRaw));
    EXPECT_THROW(ec.sign(rsaRaw, Bytes(32, 1)), PlatformError);
    EXPECT_FALSE(rsaKey().supports(ecdsaDigest));
    EXPECT_THROW(rsaKey().sign(ecdsaDigest, Bytes(32, 1)), PlatformError);
}

class RsaPss : public ::testing::TestWithParam<RsaPssParameters> {};

TEST_P(RsaPss, VerifiesWithExactlyItsParameters) {
    const auto p = GetParam();
    const auto signature = rsaKey().signRsaPss(digest(p.hash, message), p);
    const auto pss = [&](std::size_t saltLength) {
        return [&, saltLength](EVP_PKEY_CTX* context) {
            return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
                   EVP_PKEY_CTX_set_rsa_mgf1_md(context, opensslDigest(p.mgf1Hash)) == 1 &&
                   EVP_PKEY_CTX_set_rsa_pss_saltlen(context, static_cast<int>(saltLength)) == 1;
        };
    };
    EXPECT_TRUE(verifiesMessage(rsaKey().handle(), p.hash, message, signature, pss(p.saltLength)));
    EXPECT_FALSE(
        verifiesMessage(rsaKey().handle(), p.hash, message, signature, pss(p.saltLength + 1)));
}

INSTANTIATE_TEST_SUITE_P(
    HashMgfSalt, RsaPss,
    ::testing::Values(RsaPssParameters{DigestAlgorithm::sha256, DigestAlgorithm::sha256, 32},
                      RsaPssParameters{DigestAlgorithm::sha256, DigestAlgorithm::sha1, 0},
                      RsaPssParameters{DigestAlgorithm::sha1, DigestAlgorithm::sha1, 20},
                      RsaPssParameters{DigestAlgorithm::sha224, DigestAlgorithm::sha384, 28},
                      RsaPssParameters{DigestAlgorithm::sha384, DigestAlgorithm::sha512, 48},
                      // The largest salt a 2048-bit key leaves room for beside a SHA-512 hash.
                      RsaPssParameters{DigestAlgorithm::sha512, DigestAlgorithm::sha256, 190}),
    [](const auto& test) {
        return testing::digestName(test.param.hash) + "_mgf1" +
               testing::digestName(test.param.mgf1Hash) + "_salt" +
               std::to_string(test.param.saltLength);
    });

TEST(RsaPssRefusals, WrongKeyDigestOrSalt) {
    const RsaPssParameters sha256{DigestAlgorithm::sha256, DigestAlgorithm::sha256, 32};
    const auto sha256Of = digest(DigestAlgorithm::sha256, message);
    const std::vector<std::pair<std::string, std::function<void()>>> cases{
        {"EC key", [&] { SoftwareKey::generateEC(256).signRsaPss(sha256Of, sha256); }},
        {"short digest", [&] { rsaKey().signRsaPss(ByteView(sha256Of).first(31), sha256); }},
        {"digest of another hash",
         [&] {
             rsaKey().signRsaPss(digest(DigestAlgorithm::sha384, message),
                                 {DigestAlgorithm::sha256, DigestAlgorithm::sha256, 32});
         }},
        {"salt beyond the key",
         [&] {
             rsaKey().signRsaPss(digest(DigestAlgorithm::sha512, message),
                                 {DigestAlgorithm::sha512, DigestAlgorithm::sha512, 191});
         }},
        {"salt beyond int",
         [&] {
             rsaKey().signRsaPss(sha256Of, {DigestAlgorithm::sha256, DigestAlgorithm::sha256,
                                            std::numeric_limits<std::size_t>::max()});
         }},
    };
    for (const auto& [name, sign] : cases) EXPECT_THROW(sign(), PlatformError) << name;
}

}  // namespace
}  // namespace keyloft::platform::key_service
