#include "platform/key_processor/tpm_key_processor.hpp"

#include <gtest/gtest.h>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_service/ec_key_builder.hpp"
#include "platform/key_service/software_key.hpp"
#include "unit/platform_key_processor/software_tpm.hpp"

namespace keyloft::platform::key_processor {
namespace {

using key_service::ecPublicKeyFromPoint;
using key_service::SignatureAlgorithm;
using key_service::SoftwareKey;

constexpr std::uint32_t plainWord = accessControlPrivateKeyUsage;
constexpr std::uint32_t biometryWord = accessControlPrivateKeyUsage | accessControlBiometryAny;
constexpr auto ecdsaSha384 = SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;
constexpr auto ecdsaDigest = SignatureAlgorithm::ecdsaSignatureDigestX962;

class CountingGate : public PresenceGate {
  public:
    void confirm() override {
        ++asked;
        if (!accept) throw PlatformError("refused");
    }
    int asked = 0;
    bool accept = true;
};

// OpenSSL's verdict on a DER signature over input used as the digest, as the key service signs it.
bool verifiesDigest(const PublicKeyAttributes& publicKey, ByteView digest, ByteView signature) {
    const auto key = ecPublicKeyFromPoint(publicKey.sizeInBits, publicKey.externalRepresentation);
    openssl::PkeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    return context && EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(),
                           digest.size()) == 1;
}

class TpmKeyProcessorTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        tpm_ = new keyloft::testing::SoftwareTpm;
        tcti_ = keyloft::testing::SoftwareTpm::start(*tpm_);
    }
    static void TearDownTestSuite() {
        delete tpm_;
        tpm_ = nullptr;
    }

    void SetUp() override {
        if (!tcti_) {
            if (keyloft::testing::inContinuousIntegration()) FAIL() << "swtpm did not start";
            GTEST_SKIP() << "swtpm is not installed";
        }
        processor_.emplace(*tcti_, gate_);
    }

    TpmKeyProcessor& processor() { return *processor_; }

    static keyloft::testing::SoftwareTpm* tpm_;
    static std::optional<std::string> tcti_;
    CountingGate gate_;
    std::optional<TpmKeyProcessor> processor_;
};

keyloft::testing::SoftwareTpm* TpmKeyProcessorTest::tpm_ = nullptr;
std::optional<std::string> TpmKeyProcessorTest::tcti_;

TEST_F(TpmKeyProcessorTest, RebuiltKeysSignAndAgreeAsTheCreatedOnes) {
    for (const int bits : {256, 384}) {
        const auto created = processor().createKey(bits, plainWord);
        const auto header = ObjectIdentifierHeader::decode(created->objectIdentifier());
        ASSERT_TRUE(header);
        EXPECT_EQ(header->backEnd, tpmBackEnd);
        EXPECT_EQ(header->sizeInBits, bits);
        EXPECT_EQ(header->accessControl, plainWord);

        const auto rebuilt = processor().rebuildKey(created->objectIdentifier(), nullptr);
        const auto publicKey = created->publicKeyAttributes();
        EXPECT_EQ(publicKey.keyType, keyTypeEC);
        EXPECT_EQ(publicKey.sizeInBits, bits);
        EXPECT_EQ(rebuilt->publicKeyAttributes().externalRepresentation,
                  publicKey.externalRepresentation);
        const Bytes message = bytesOf("to be signed");
        EXPECT_TRUE(verifiesDigest(publicKey, crypto::sha384(message),
                                   rebuilt->sign(ecdsaSha384, message)));

        const auto peer = SoftwareKey::generateEC(bits);
        const auto shared = rebuilt->agree(peer.publicKeyAttributes().externalRepresentation);
        EXPECT_EQ(shared, peer.agree(publicKey.externalRepresentation));
        EXPECT_EQ(shared, created->agree(peer.publicKeyAttributes().externalRepresentation));
    }
    EXPECT_EQ(gate_.asked, 0);
}

// The TPM signs digests of a hash's length only; the key service signs any input, truncating
// long input to the order's length. Both must give signatures OpenSSL accepts for the same input.
TEST_F(TpmKeyProcessorTest, SignsDigestsOfAnyLengthAsTheKeyServiceDoes) {
    for (const int bits : {256, 384}) {
        const auto key = processor().createKey(bits, plainWord);
        for (const std::size_t length : {1U, 20U, 31U, 32U, 33U, 48U, 64U}) {
            Bytes digest(length);
            for (std::size_t i = 0; i < length; ++i) digest[i] = static_cast<std::uint8_t>(i + 1);
            const auto signature = key->sign(ecdsaDigest, digest);
            EXPECT_TRUE(verifiesDigest(key->publicKeyAttributes(), digest, signature))
                << bits << " bits, " << length << " bytes";
        }
    }
}

TEST_F(TpmKeyProcessorTest, RefusesWhatItCannotHonour) {
    EXPECT_THROW(processor().createKey(521, plainWord), PlatformError);
    for (const std::uint32_t word : {0U, 0x2U, 0x40000001U, 0x40000004U, 0xC0000002U})
        EXPECT_THROW(processor().createKey(256, word), PlatformError) << word;
    const auto key = processor().createKey(256, plainWord);
    EXPECT_THROW(key->sign(SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384, bytesOf("m")),
                 PlatformError);
    // A point of the other curve, a compressed point, and one off the curve.
    const auto p384 = SoftwareKey::generateEC(384).publicKeyAttributes().externalRepresentation;
    EXPECT_THROW(key->agree(p384), PlatformError);
    Bytes point = SoftwareKey::generateEC(256).publicKeyAttributes().externalRepresentation;
    EXPECT_THROW(key->agree(ByteView(point).first(33)), PlatformError);
    point.back() ^= 0x01;
    EXPECT_THROW(key->agree(point), PlatformError);
}

TEST_F(TpmKeyProcessorTest, BiometryKeysAskTheGateOncePerContext) {
    const Bytes protectedKey = processor().createKey(256, biometryWord)->objectIdentifier();
    const auto context = std::make_shared<AuthenticationContext>();
    processor().rebuildKey(protectedKey, context)->sign(ecdsaSha384, bytesOf("a"));
    const Bytes peer = SoftwareKey::generateEC(256).publicKeyAttributes().externalRepresentation;
    processor().rebuildKey(protectedKey, context)->agree(peer);
    EXPECT_EQ(gate_.asked, 1);

    gate_.accept = false;
    const auto refused = processor().rebuildKey(protectedKey, nullptr);
    EXPECT_THROW(refused->sign(ecdsaSha384, bytesOf("b")), PlatformError);
    EXPECT_THROW(refused->agree(peer), PlatformError);
    EXPECT_EQ(gate_.asked, 3);
}

TEST_F(TpmKeyProcessorTest, ChangedOrForeignIdentifiersAreRefused) {
    const Bytes identifier = processor().createKey(256, biometryWord)->objectIdentifier();
    const auto used = [&](ByteView changed) {
        processor().rebuildKey(changed, nullptr)->sign(ecdsaSha384, bytesOf("m"));
    };
    // Every byte counts: the header, the public area (named in the private blob) and the private
    // blob itself. Some changes are caught when the key is loaded, some when it is used.
    for (std::size_t position = 0; position < identifier.size(); ++position) {
        Bytes changed = identifier;
        changed[position] ^= 0x01;
        EXPECT_THROW(used(changed), PlatformError) << position;
    }
    EXPECT_THROW(used(ByteView(identifier).first(identifier.size() - 1)), PlatformError);
    Bytes longer = identifier;
    longer.push_back(0);
    EXPECT_THROW(used(longer), PlatformError);
    EXPECT_THROW(used(Bytes{}), PlatformError);

    // Biometry taken out of the header: the gate is not asked, and the TPM refuses the key.
    Bytes unprotected = identifier;
    unprotected[ObjectIdentifierHeader::size - 1] &= ~accessControlBiometryAny;
    EXPECT_THROW(used(unprotected), PlatformError);
    EXPECT_EQ(gate_.asked, 0);
}

TEST_F(TpmKeyProcessorTest, KeysOfAnotherTpmAreRefused) {
    keyloft::testing::SoftwareTpm otherTpm;
    const auto otherTcti = keyloft::testing::SoftwareTpm::start(otherTpm);
    ASSERT_TRUE(otherTcti);
    TpmKeyProcessor other(*otherTcti, gate_);
    const Bytes identifier = processor().createKey(256, plainWord)->objectIdentifier();
    try {
        other.rebuildKey(identifier, nullptr);
        FAIL() << "another TPM loaded the key";
    } catch (const PlatformError& error) {
        EXPECT_NE(std::string(error.what()).find("made by another TPM"), std::string::npos)
            << error.what();
    }
}

// The simulator holds three loaded objects and has no resource manager: handles that were not
// flushed would fill it within a few keys.
TEST_F(TpmKeyProcessorTest, HandlesLeaveNothingLoadedBehind) {
    for (int round = 0; round < 6; ++round) {
        const auto key = processor().createKey(256, plainWord);
        processor().rebuildKey(key->objectIdentifier(), nullptr)->sign(ecdsaSha384, bytesOf("m"));
    }
}

TEST(TpmKeyProcessorUnreachable, SaysWhy) {
    CountingGate gate;
    TpmKeyProcessor processor("swtpm:host=127.0.0.1,port=1", gate);
    try {
        processor.connect();
        FAIL() << "connected to nothing";
    } catch (const PlatformError& error) {
        EXPECT_NE(std::string(error.what()).find("swtpm:host=127.0.0.1,port=1"), std::string::npos)
            << error.what();
    }
}

}  // namespace
}  // namespace keyloft::platform::key_processor
