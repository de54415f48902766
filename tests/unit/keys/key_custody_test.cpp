#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdlib>

#include "keyloft/error.hpp"
#include "keys/key_access.hpp"
#include "keys/key_creation.hpp"
#include "platform/bastion/object_identifier.hpp"
#include "platform/bastion/soft_key_processor.hpp"
#include "platform/keyservice/software_key.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::keys {
namespace {

using platform::SignatureAlgorithm;
using platform::SoftwareKey;

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

bool verifies(const platform::PublicKeyAttributes& publicKey, ByteView message,
              ByteView signature) {
    const auto key =
        platform::ecPublicKeyFromPoint(publicKey.sizeInBits, publicKey.externalRepresentation);
    platform::openssl::MdContext context(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha384(), nullptr, key.get()) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

TEST_F(KeyCustody, SealedKeysUnwrapToExactlyTheSealedBytes) {
    std::vector<SoftwareKey> keys;
    for (const int bits : {256, 384, 521}) keys.push_back(SoftwareKey::generateEC(bits));
    const platform::openssl::Pkey rsa(EVP_RSA_gen(2048));
    unsigned char* der = nullptr;
    const int size = i2d_PrivateKey(rsa.get(), &der);
    keys.push_back(SoftwareKey::fromExternalRepresentation(
        "rsa", ByteView(der, static_cast<std::size_t>(size))));
    OPENSSL_free(der);

    for (const auto& key : keys) {
        const auto sealed = makeSealedKey(key, false);
        EXPECT_EQ(sealed.pubKeyHash, key.applicationLabel());
        EXPECT_EQ(sealed.keyType, key.keyType());
        const auto plaintext = key.externalRepresentation();
        EXPECT_EQ(sealed.wrappedPrivateKey.size(), 65 + plaintext.size() + 16);
        const auto [unwrapped, data] = unwrapPrivateKeyWithData(sealed, nullptr);
        EXPECT_EQ(data, plaintext);
        EXPECT_EQ(unwrapped.applicationLabel(), key.applicationLabel());

        const auto again = makeSealedKey(key, false);
        EXPECT_NE(again.wrappedPrivateKey, sealed.wrappedPrivateKey);
        EXPECT_NE(again.wrappingPrivateKeyData, sealed.wrappingPrivateKeyData);
    }
}

TEST_F(KeyCustody, DamagedRecordsAreRefused) {
    auto sealed = makeSealedKey(SoftwareKey::generateEC(256), false);
    auto damaged = sealed;
    damaged.wrappedPrivateKey[100] ^= 0x01;
    EXPECT_THROW(unwrapPrivateKeyData(damaged, nullptr), PlatformError);
    damaged = sealed;
    damaged.wrappingPrivateKeyData[20] ^= 0x01;
    EXPECT_THROW(unwrapPrivateKeyData(damaged, nullptr), PlatformError);
    damaged = sealed;
    damaged.wrappingPrivateKeyData[11] ^= 0x02;  // the access-control word is authenticated
    EXPECT_THROW(unwrapPrivateKeyData(damaged, nullptr), PlatformError);
    damaged = sealed;
    damaged.wrappingPrivateKeyData[5] = 't';  // a back end this machine does not have
    EXPECT_THROW(unwrapPrivateKeyData(damaged, nullptr), PlatformError);
}

TEST_F(KeyCustody, ProcessorKeysCarryTheAccessControlWordAndSign) {
    EXPECT_EQ(accessControlFor(false), 0x40000000U);
    EXPECT_EQ(accessControlFor(true), 0x40000002U);
    for (const auto type : {KeyType::p256ne, KeyType::p384ne}) {
        const auto handle = generateKey(type, false);
        ASSERT_NE(handle.processorKey(), nullptr);
        const auto record = makeBastionKey(*handle.processorKey(), false);
        EXPECT_EQ(record.pubKeyHash, handle.applicationLabel());
        const auto header = platform::ObjectIdentifierHeader::decode(record.keyData);
        ASSERT_TRUE(header);
        EXPECT_EQ(header->accessControl, 0x40000000U);

        KeyStorage storage{.bastionKey = record};
        const Bytes message = bytesOf("to be signed");
        const auto signature = signWithStoredKey(
            message, storage, SignatureAlgorithm::ecdsaSignatureMessageX962SHA384);
        EXPECT_TRUE(verifies(handle.publicKeyAttributes(), message, signature));
    }
}

TEST_F(KeyCustody, ProcessorKeyWinsAndEmptyStorageIsNotFound) {
    const auto processor = generateKey(KeyType::p256ne, false);
    const auto software = SoftwareKey::generateEC(384);
    KeyStorage both{.bastionKey = makeBastionKey(*processor.processorKey(), false),
                    .sealedKey = makeSealedKey(software, true)};
    const auto [handle, keyType] = keyHandle(both, nullptr);
    EXPECT_EQ(handle.applicationLabel(), processor.applicationLabel());
    EXPECT_EQ(keyType, "ec");
    EXPECT_FALSE(protectionOf(both).exportable);
    EXPECT_TRUE(protectionOf(KeyStorage{.sealedKey = both.sealedKey}).exportable);

    try {
        keyHandle(KeyStorage{}, nullptr);
        FAIL();
    } catch (const PlatformError& error) {
        EXPECT_EQ(std::string(error.what()), "Stored key not found");
        EXPECT_EQ(error.code(), -6);
    }
    EXPECT_THROW(protectionOf(KeyStorage{}), PlatformError);
}

class CountingGate : public platform::PresenceGate {
  public:
    void confirm() override {
        ++asked;
        if (!accept) throw PlatformError("refused");
    }
    int asked = 0;
    bool accept = true;
};

TEST(SoftKeyProcessor, BiometryKeysAskTheGateOncePerContext) {
    testing::TemporaryFolder folder;
    CountingGate gate;
    platform::SoftKeyProcessor processor(folder.path() / "bastion.key", gate);
    const auto created = processor.createKey(256, accessControlFor(true));
    const auto plain = processor.createKey(256, accessControlFor(false));

    const auto context = std::make_shared<platform::AuthenticationContext>();
    const auto key = processor.rebuildKey(created->objectIdentifier(), context);
    key->sign(bytesOf("a"));
    key->sign(bytesOf("b"));
    EXPECT_EQ(gate.asked, 1);
    processor.rebuildKey(plain->objectIdentifier(), nullptr)->sign(bytesOf("c"));
    EXPECT_EQ(gate.asked, 1);

    gate.accept = false;
    EXPECT_THROW(processor.rebuildKey(created->objectIdentifier(), nullptr)->sign(bytesOf("d")),
                 PlatformError);
    EXPECT_THROW(processor.rebuildKey(created->objectIdentifier(), nullptr)
                     ->agree(plain->publicKeyAttributes().externalRepresentation),
                 PlatformError);

    struct stat info {};
    ASSERT_EQ(::stat((folder.path() / "bastion.key").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
    EXPECT_EQ(info.st_size, 32);

    // Another device key cannot open this device's keys.
    testing::TemporaryFolder other;
    platform::SoftKeyProcessor foreign(other.path() / "bastion.key", gate);
    EXPECT_THROW(foreign.rebuildKey(plain->objectIdentifier(), nullptr), PlatformError);
    EXPECT_THROW(processor.createKey(521, accessControlFor(false)), PlatformError);
}

}  // namespace
}  // namespace keyloft::keys
