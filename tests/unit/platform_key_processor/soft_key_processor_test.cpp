#include "platform/key_processor/soft_key_processor.hpp"

#include <gtest/gtest.h>

#include "base/error.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_service/ec_key_builder.hpp"
#include "platform/key_service/software_key.hpp"
#include "support/temporary_folder.hpp"
#include "unit/platform_key_processor/counting_gate.hpp"

namespace keyloft::platform::key_processor {
namespace {

using crypto::SecretBytes;
using key_service::ecPublicKeyFromPoint;
using key_service::SignatureAlgorithm;
using key_service::SoftwareKey;

constexpr std::uint32_t plainWord = accessControlPrivateKeyUsage;
constexpr std::uint32_t biometryWord = accessControlPrivateKeyUsage | accessControlBiometryAny;
constexpr auto ecdsa = SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;

using testing::CountingGate;

bool verifies(const PublicKeyAttributes& publicKey, ByteView message, ByteView signature) {
    const auto key = ecPublicKeyFromPoint(publicKey.sizeInBits, publicKey.externalRepresentation);
    openssl::MdContext context(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha384(), nullptr, key.get()) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

class SoftKeyProcessorTest : public ::testing::Test {
  protected:
    keyloft::testing::TemporaryFolder folder;
    CountingGate gate;
    SoftKeyProcessor processor{folder.path() / "bastion.key", gate};
};

TEST_F(SoftKeyProcessorTest, RebuiltKeysSignAndAgreeAsTheCreatedOnes) {
    for (const int bits : {256, 384}) {
        const auto created = processor.createKey(bits, plainWord);
        const auto header = ObjectIdentifierHeader::decode(created->objectIdentifier());
        ASSERT_TRUE(header);
        EXPECT_EQ(header->backEnd, softBackEnd);
        EXPECT_EQ(header->sizeInBits, bits);
        EXPECT_EQ(header->accessControl, plainWord);

        const auto rebuilt = processor.rebuildKey(created->objectIdentifier(), nullptr);
        const auto publicKey = created->publicKeyAttributes();
        EXPECT_EQ(rebuilt->publicKeyAttributes().externalRepresentation,
                  publicKey.externalRepresentation);
        EXPECT_EQ(publicKey.sizeInBits, bits);
        const Bytes message = bytesOf("to be signed");
        EXPECT_TRUE(verifies(publicKey, message, rebuilt->sign(ecdsa, message)));

        const auto peer = SoftwareKey::generateEC(bits);
        EXPECT_EQ(rebuilt->agree(peer.publicKeyAttributes().externalRepresentation),
                  peer.agree(publicKey.externalRepresentation));
    }
    EXPECT_EQ(gate.asked, 0);
}

TEST_F(SoftKeyProcessorTest, RefusesWhatItCannotHonour) {
    EXPECT_THROW(processor.createKey(521, plainWord), PlatformError);
    for (const std::uint32_t word : {0U, 0x2U, 0x40000001U, 0x40000004U, 0xC0000002U})
        EXPECT_THROW(processor.createKey(256, word), PlatformError) << word;
    const auto key = processor.createKey(256, plainWord);
    EXPECT_THROW(key->sign(SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384, bytesOf("m")),
                 PlatformError);
}

TEST_F(SoftKeyProcessorTest, BiometryKeysAskTheGateOncePerContext) {
    const Bytes protectedKey = processor.createKey(256, biometryWord)->objectIdentifier();
    const Bytes plainKey = processor.createKey(256, plainWord)->objectIdentifier();

    const auto context = std::make_shared<AuthenticationContext>();
    processor.rebuildKey(protectedKey, context)->sign(ecdsa, bytesOf("a"));
    processor.rebuildKey(protectedKey, context)->sign(ecdsa, bytesOf("b"));
    EXPECT_EQ(gate.asked, 1);
    EXPECT_TRUE(context->presenceConfirmed());

    // Without a context each handle makes its own, so each asks again.
    const auto own = processor.rebuildKey(protectedKey, nullptr);
    own->sign(ecdsa, bytesOf("c"));
    own->sign(ecdsa, bytesOf("d"));
    EXPECT_EQ(gate.asked, 2);
    processor.rebuildKey(plainKey, nullptr)->sign(ecdsa, bytesOf("e"));
    EXPECT_EQ(gate.asked, 2);

    gate.accept = false;
    const auto refused = processor.rebuildKey(protectedKey, nullptr);
    EXPECT_THROW(refused->sign(ecdsa, bytesOf("f")), PlatformError);
    const Bytes peer = SoftwareKey::generateEC(256).publicKeyAttributes().externalRepresentation;
    EXPECT_THROW(refused->agree(peer), PlatformError);
    // A refusal is not remembered as a confirmation.
    EXPECT_THROW(refused->sign(ecdsa, bytesOf("g")), PlatformError);
    EXPECT_EQ(gate.asked, 5);
}

TEST_F(SoftKeyProcessorTest, ChangedOrForeignIdentifiersAreRefused) {
    const Bytes identifier = processor.createKey(256, biometryWord)->objectIdentifier();
    ASSERT_EQ(identifier.size(), ObjectIdentifierHeader::size + 12 + 32 + 16);

    // Every byte counts: magic, version, back end, size, access-control word, nonce, sealed scalar
    // and tag.
    for (std::size_t position = 0; position < identifier.size(); ++position) {
        Bytes changed = identifier;
        changed[position] ^= 0x01;
        EXPECT_THROW(processor.rebuildKey(changed, nullptr), PlatformError) << position;
    }
    EXPECT_THROW(processor.rebuildKey(ByteView(identifier).first(identifier.size() - 1), nullptr),
                 PlatformError);
    EXPECT_THROW(processor.rebuildKey(ByteView(identifier).first(ObjectIdentifierHeader::size + 28),
                                      nullptr),
                 PlatformError);
    EXPECT_THROW(processor.rebuildKey(Bytes{}, nullptr), PlatformError);

    const keyloft::testing::TemporaryFolder other;
    SoftKeyProcessor foreign(other.path() / "bastion.key", gate);
    try {
        foreign.rebuildKey(identifier, nullptr);
        FAIL() << "another device key opened the identifier";
    } catch (const PlatformError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "Key processor: the key cannot be used here: it was made by another device or "
                  "has been changed");
    }
}

}  // namespace
}  // namespace keyloft::platform::key_processor
