#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdlib>

#include "base/error.hpp"
#include "keys/key_access.hpp"
#include "keys/key_creation.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_service/ec_key_builder.hpp"
#include "platform/key_service/software_key.hpp"
#include "support/temporary_folder.hpp"
#include "unit/platform_key_processor/session_child.hpp"

namespace keyloft::keys {
namespace {

using platform::key_service::SignatureAlgorithm;
using platform::key_service::SoftwareKey;

constexpr auto ecdsa = SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;
constexpr auto rsaPkcs1 = SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384;

// The default key processor keeps its device key in the data folder of this test process.
class KeyCustody : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        folder = std::make_unique<testing::TemporaryFolder>();
        ::setenv("XDG_DATA_HOME", folder->path().c_str(), 1);
    }
    static void TearDownTestSuite() { folder.reset(); }
    static std::unique_ptr<testing::TemporaryFolder> folder;
};
std::unique_ptr<testing::TemporaryFolder> KeyCustody::folder;

SoftwareKey rsaKey() {
    const platform::openssl::Pkey rsa(EVP_RSA_gen(2048));
    unsigned char* der = nullptr;
    const int size = i2d_PrivateKey(rsa.get(), &der);
    auto key = SoftwareKey::fromExternalRepresentation(
        "rsa", ByteView(der, static_cast<std::size_t>(size)));
    OPENSSL_free(der);
    return key;
}

// Verifies with OpenSSL alone, from the public key's external representation.
bool verifies(const PublicKeyAttributes& publicKey, ByteView message, ByteView signature) {
    platform::openssl::Pkey key;
    if (publicKey.keyType == "rsa") {
        const unsigned char* cursor = publicKey.externalRepresentation.data();
        key.reset(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor,
                                static_cast<long>(publicKey.externalRepresentation.size())));
    } else {
        key = platform::key_service::ecPublicKeyFromPoint(publicKey.sizeInBits,
                                                          publicKey.externalRepresentation);
    }
    platform::openssl::MdContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* parameters = nullptr;
    return EVP_DigestVerifyInit(context.get(), &parameters, EVP_sha384(), nullptr, key.get()) ==
               1 &&
           (publicKey.keyType != "rsa" ||
            EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PADDING) == 1) &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

const platform::key_processor::ProcessorKey* processorKeyOf(const NewKey& created) {
    return dynamic_cast<const platform::key_processor::ProcessorKey*>(created.key.get());
}

TEST_F(KeyCustody, SealedKeysUnwrapToExactlyTheSealedBytes) {
    struct Case {
        KeyType type;
        std::size_t plaintextSize;
        std::size_t wrappedSize;
    };
    for (const auto& [type, plaintextSize, wrappedSize] :
         {Case{KeyType::p256, 97, 178}, Case{KeyType::p384, 145, 226},
          Case{KeyType::p521, 199, 280}}) {
        const auto created = generateKey(type, false, {});
        const auto* software =
            dynamic_cast<const platform::key_service::SoftwareKey*>(created.key.get());
        ASSERT_NE(software, nullptr);
        ASSERT_TRUE(created.storage.sealedKey);
        const auto& key = *software;
        const auto sealed = makeSealedKey(key, false, {});
        EXPECT_EQ(sealed.pubKeyHash, key.applicationLabel());
        EXPECT_EQ(created.storage.sealedKey->pubKeyHash, key.applicationLabel());
        EXPECT_EQ(sealed.keyType, "ec");
        EXPECT_EQ(sealed.biometryProtection, BiometryProtection::off);
        EXPECT_EQ(sealed.wrappedPrivateKey.size(), wrappedSize);
        const auto [unwrapped, data] = unwrapPrivateKeyWithData(sealed, nullptr);
        EXPECT_EQ(data.size(), plaintextSize);
        EXPECT_EQ(data, key.externalRepresentation());
        EXPECT_EQ(unwrapped.applicationLabel(), key.applicationLabel());

        const auto again = makeSealedKey(key, false, {});
        EXPECT_EQ(again.pubKeyHash, sealed.pubKeyHash);
        EXPECT_NE(again.wrappedPrivateKey, sealed.wrappedPrivateKey);
        EXPECT_NE(again.wrappingPrivateKeyData, sealed.wrappingPrivateKeyData);
    }

    const auto rsa = rsaKey();
    const auto sealed = makeSealedKey(rsa, false, {});
    EXPECT_EQ(sealed.keyType, "rsa");
    EXPECT_EQ(unwrapPrivateKeyData(sealed, nullptr), rsa.externalRepresentation());
}

TEST_F(KeyCustody, DamagedRecordsAreRefused) {
    const auto sealed = makeSealedKey(SoftwareKey::generateEC(256), false, {});
    struct Damage {
        Bytes SealedKey::*field;
        std::size_t position;
        std::uint8_t mask;
    };
    for (const auto& [field, position, mask] : {
             Damage{&SealedKey::wrappedPrivateKey, 100, 0x01},          // ciphertext
             Damage{&SealedKey::wrappingPrivateKeyData, 11, 0x02},      // drops the biometry flag
             Damage{&SealedKey::wrappingPrivateKeyData, 5, 's' ^ 't'},  // a back end not here
         }) {
        auto damaged = sealed;
        (damaged.*field)[position] ^= mask;
        EXPECT_THROW(unwrapPrivateKeyData(damaged, nullptr), PlatformError) << position;
    }
    auto other = sealed;
    other.wrappingPrivateKeyData =
        makeSealedKey(SoftwareKey::generateEC(256), false, {}).wrappingPrivateKeyData;
    EXPECT_THROW(unwrapPrivateKeyData(other, nullptr), PlatformError);
    auto wrongType = sealed;
    wrongType.keyType = "rsa";
    EXPECT_THROW(unwrapPrivateKey(wrongType, nullptr), PlatformError);
}

TEST_F(KeyCustody, StoredKeysSignVerifiably) {
    const Bytes message = bytesOf("to be signed");
    for (const auto type : {KeyType::p256ne, KeyType::p384ne}) {
        const auto created = generateKey(type, false, {});
        const auto* processorKey = processorKeyOf(created);
        ASSERT_NE(processorKey, nullptr);
        ASSERT_TRUE(created.storage.boundKey);
        const auto& record = *created.storage.boundKey;
        EXPECT_EQ(record.pubKeyHash, processorKey->applicationLabel());
        EXPECT_EQ(record.biometryProtection, BiometryProtection::off);
        EXPECT_EQ(record.keyData, processorKey->objectIdentifier());
        const auto signature =
            privateKey(KeyStorage{.boundKey = record}, nullptr)->sign(ecdsa, message);
        EXPECT_TRUE(verifies(processorKey->publicKeyAttributes(), message, signature));
    }
    for (const auto& key : {SoftwareKey::generateEC(521), rsaKey()}) {
        const auto stored =
            privateKey(KeyStorage{.sealedKey = makeSealedKey(key, false, {})}, nullptr);
        const auto algorithm = key.keyType() == "rsa" ? rsaPkcs1 : ecdsa;
        const auto signature = stored->sign(algorithm, message);
        EXPECT_TRUE(verifies(key.publicKeyAttributes(), message, signature)) << key.keyType();
        EXPECT_THROW(stored->sign(algorithm == ecdsa ? rsaPkcs1 : ecdsa, message), PlatformError);
    }
}

TEST_F(KeyCustody, AccessControlWordFollowsBiometry) {
    for (const bool biometry : {false, true}) {
        const auto processorKey = generateKey(KeyType::p256ne, biometry, {});
        const auto sealed = makeSealedKey(SoftwareKey::generateEC(256), biometry, {});
        for (const auto& identifier :
             {processorKeyOf(processorKey)->objectIdentifier(), sealed.wrappingPrivateKeyData}) {
            const auto header = platform::key_processor::ObjectIdentifierHeader::decode(identifier);
            ASSERT_TRUE(header);
            EXPECT_EQ(header->accessControl, accessControlFor(biometry));
            EXPECT_EQ(header->sizeInBits, 256);
        }
        const auto expected = biometry ? BiometryProtection::on : BiometryProtection::off;
        EXPECT_EQ(processorKey.storage.boundKey->biometryProtection, expected);
        EXPECT_EQ(sealed.biometryProtection, expected);
    }
    // Software keys take the flag to their wrapping key.
    EXPECT_EQ(generateKey(KeyType::p384, true, {}).storage.sealedKey->biometryProtection,
              BiometryProtection::on);
}

// The child has no controlling terminal, so any presence check there is refused.
TEST_F(KeyCustody, ContextReachesProtectedKeysOnly) {
    const auto processorKey = generateKey(KeyType::p256ne, true, {});
    const auto boundKey = *processorKey.storage.boundKey;
    const auto sealed = makeSealedKey(SoftwareKey::generateEC(384), true, {});
    const auto newSealed = generateKey(KeyType::p384, true, {});
    const auto unprotected = generateKey(KeyType::p256, false, {});
    const auto confirmed = std::make_shared<AuthenticationContext>();
    confirmed->confirmPresence();

    const auto outcome = testing::runInSession(
        [&] {
            privateKey(KeyStorage{.boundKey = boundKey}, confirmed)->sign(ecdsa, bytesOf("m"));
            unwrapPrivateKeyData(sealed, confirmed);
            unprotected.sign(ecdsa, bytesOf("m"));
        },
        false);
    EXPECT_TRUE(outcome.succeeded) << outcome.error;

    auto unprotectedRecord = boundKey;
    unprotectedRecord.biometryProtection = BiometryProtection::off;
    const std::vector<std::function<void()>> refused{
        [&] {
            privateKey(KeyStorage{.boundKey = unprotectedRecord}, confirmed)
                ->sign(ecdsa, bytesOf("m"));
        },
        [&] { privateKey(KeyStorage{.boundKey = boundKey}, nullptr)->sign(ecdsa, bytesOf("m")); },
        [&] { unwrapPrivateKeyData(sealed, nullptr); },
        // A new key signing while in hand asks as its record would.
        [&] { processorKey.sign(ecdsa, bytesOf("m")); },
        [&] { newSealed.sign(ecdsa, bytesOf("m")); },
    };
    for (std::size_t i = 0; i < refused.size(); ++i) {
        const auto result = testing::runInSession(refused[i], false);
        EXPECT_FALSE(result.succeeded) << i;
        EXPECT_EQ(
            result.error.rfind("User presence could not be confirmed: no controlling terminal", 0),
            0U)
            << i << ": " << result.error;
    }
}

TEST_F(KeyCustody, ProcessorKeyWinsAndEmptyStorageIsNotFound) {
    const auto processor = generateKey(KeyType::p256ne, false, {});
    const auto software = SoftwareKey::generateEC(384);
    KeyStorage both{.boundKey = processor.storage.boundKey,
                    .sealedKey = makeSealedKey(software, true, {})};
    const auto key = privateKey(both, nullptr);
    EXPECT_EQ(key->applicationLabel(), processor.key->applicationLabel());
    EXPECT_NE(dynamic_cast<const platform::key_processor::ProcessorKey*>(key.get()), nullptr);
    EXPECT_EQ(key->keyType(), "ec");
    EXPECT_EQ(protectionOf(both).biometryProtection, BiometryProtection::off);
    EXPECT_FALSE(protectionOf(both).exportable);
    const auto sealedOnly = protectionOf(KeyStorage{.sealedKey = both.sealedKey});
    EXPECT_EQ(sealedOnly.biometryProtection, BiometryProtection::on);
    EXPECT_TRUE(sealedOnly.exportable);

    for (const auto& lookup : std::vector<std::function<void()>>{
             [] { privateKey(KeyStorage{}, nullptr); }, [] { protectionOf(KeyStorage{}); }}) {
        try {
            lookup();
            FAIL() << "an empty record was found";
        } catch (const PlatformError& error) {
            EXPECT_EQ(std::string(error.what()), "Stored key not found");
            EXPECT_EQ(error.code(), -6);
        }
    }
}

}  // namespace
}  // namespace keyloft::keys
