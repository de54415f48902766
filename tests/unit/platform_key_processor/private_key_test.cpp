#include "platform/key_service/private_key.hpp"

#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/key_processor/soft_key_processor.hpp"
#include "platform/key_service/ec_key_builder.hpp"
#include "platform/key_service/software_key.hpp"
#include "support/temporary_folder.hpp"
#include "unit/platform_key_processor/counting_gate.hpp"

namespace keyloft::platform::key_processor {
namespace {

namespace openssl = platform::openssl;

using platform::crypto::DigestAlgorithm;
using platform::key_service::PrivateKey;
using platform::key_service::SoftwareKey;

constexpr auto ecdsaDigest = platform::key_service::SignatureAlgorithm::ecdsaSignatureDigestX962;
const Bytes message = bytesOf("message to sign");

using testing::CountingGate;

// EVP_DigestVerify over the message; configure sets RSA padding options.
template <class Configure>
bool verifies(EVP_PKEY* key, const EVP_MD* md, ByteView signature, Configure configure) {
    platform::openssl::MdContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* parameters = nullptr;
    return EVP_DigestVerifyInit(context.get(), &parameters, md, nullptr, key) == 1 &&
           configure(parameters) &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

const auto noOptions = [](EVP_PKEY_CTX*) { return true; };

TEST(PrivateKey, ProcessorKeysSignDigestsAndAgreeButHoldNoRsa) {
    testing::TemporaryFolder folder;
    CountingGate gate;
    SoftKeyProcessor processor(folder.path() / "bastion.key", gate);
    for (const int bits : {256, 384}) {
        const std::unique_ptr<const PrivateKey> key =
            processor.createKey(bits, accessControlPrivateKeyUsage | accessControlBiometryAny);
        const PrivateKey& handle = *key;
        const auto publicKey = handle.publicKeyAttributes();
        const auto verifier =
            platform::key_service::ecPublicKeyFromPoint(bits, publicKey.externalRepresentation);
        const auto signature =
            handle.sign(ecdsaDigest, platform::crypto::digest(DigestAlgorithm::sha256, message));
        EXPECT_TRUE(verifies(verifier.get(), EVP_sha256(), signature, noOptions)) << bits;

        const auto peer = SoftwareKey::generateEC(bits);
        EXPECT_EQ(handle.agree(peer.publicKeyAttributes().externalRepresentation),
                  peer.agree(publicKey.externalRepresentation));

        EXPECT_THROW(
            handle.signRsaPss(Bytes(32), {DigestAlgorithm::sha256, DigestAlgorithm::sha256, 32}),
            PlatformError);
        EXPECT_THROW(
            handle.decryptRsaOaep(Bytes(256), {DigestAlgorithm::sha256, DigestAlgorithm::sha256}),
            PlatformError);
    }
    // Both keys asked for presence once, for signing and agreement alike.
    EXPECT_EQ(gate.asked, 2);
}

TEST(PrivateKey, SoftwareKeysReachTheRsaOperationsAndAgreement) {
    const auto rsaKey = SoftwareKey::adopt(platform::openssl::Pkey(EVP_RSA_gen(2048)));
    const PrivateKey& rsa = rsaKey;
    EVP_PKEY* key = rsaKey.handle();

    const platform::key_service::RsaPssParameters pss{DigestAlgorithm::sha384,
                                                      DigestAlgorithm::sha1, 16};
    const auto signature =
        rsa.signRsaPss(platform::crypto::digest(DigestAlgorithm::sha384, message), pss);
    EXPECT_TRUE(verifies(key, EVP_sha384(), signature, [](EVP_PKEY_CTX* context) {
        return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
               EVP_PKEY_CTX_set_rsa_mgf1_md(context, EVP_sha1()) == 1 &&
               EVP_PKEY_CTX_set_rsa_pss_saltlen(context, 16) == 1;
    }));

    // OAEP with SHA-1 throughout and no label: OpenSSL's defaults for the encrypting side.
    platform::openssl::PkeyContext encryption(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    Bytes ciphertext(256);
    std::size_t size = ciphertext.size();
    ASSERT_EQ(EVP_PKEY_encrypt_init(encryption.get()), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(encryption.get(), RSA_PKCS1_OAEP_PADDING), 1);
    ASSERT_EQ(EVP_PKEY_encrypt(encryption.get(), ciphertext.data(), &size, message.data(),
                               message.size()),
              1);
    const auto plaintext =
        rsa.decryptRsaOaep(ciphertext, {DigestAlgorithm::sha1, DigestAlgorithm::sha1, {}});
    EXPECT_EQ(Bytes(plaintext.begin(), plaintext.end()), message);

    const auto ecKey = SoftwareKey::generateEC(521);
    const PrivateKey& ec = ecKey;
    const auto peer = SoftwareKey::generateEC(521);
    EXPECT_EQ(ec.agree(peer.publicKeyAttributes().externalRepresentation),
              peer.agree(ec.publicKeyAttributes().externalRepresentation));
}

}  // namespace
}  // namespace keyloft::platform::key_processor
