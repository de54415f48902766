#include "platform/key_processor/tpm_key_processor.hpp"

#include <gtest/gtest.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_rc.h>
#include <tss2/tss2_tctildr.h>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_processor/tpm_connection.hpp"
#include "platform/key_service/ec_key_builder.hpp"
#include "platform/key_service/software_key.hpp"
#include "unit/platform_key_processor/counting_gate.hpp"
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

using testing::CountingGate;

// OpenSSL's verdict on a DER signature over input used as the digest, as the key service signs it.
bool verifiesDigest(const PublicKeyAttributes& publicKey, ByteView digest, ByteView signature) {
    const auto key = ecPublicKeyFromPoint(publicKey.sizeInBits, publicKey.externalRepresentation);
    openssl::PkeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    return context && EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(),
                           digest.size()) == 1;
}

// The machine's owner at the TPM, as provisioning tools are: an ESAPI connection of its own. The
// simulator serves one client at a time, so it must be gone before a processor connects.
class TpmOwner {
  public:
    explicit TpmOwner(const std::string& tcti) {
        if (Tss2_TctiLdr_Initialize(tcti.c_str(), &tcti_) != TSS2_RC_SUCCESS ||
            Esys_Initialize(&esys_, tcti_, nullptr) != TSS2_RC_SUCCESS) {
            throw std::runtime_error("no TPM at " + tcti);
        }
    }
    ~TpmOwner() {
        Esys_Finalize(&esys_);
        Tss2_TctiLdr_Finalize(&tcti_);
    }

    // A primary of the template made persistent at the handle storage keys are looked for at.
    void persist(const TPM2B_PUBLIC& keyTemplate) {
        const TPM2B_SENSITIVE_CREATE noSensitive{};
        const TPM2B_DATA noOutsideInfo{};
        const TPML_PCR_SELECTION noPcrs{};
        ESYS_TR primary = ESYS_TR_NONE;
        expect(Esys_CreatePrimary(esys_, ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                  ESYS_TR_NONE, &noSensitive, &keyTemplate, &noOutsideInfo, &noPcrs,
                                  &primary, nullptr, nullptr, nullptr, nullptr));
        ESYS_TR persistent = ESYS_TR_NONE;
        expect(Esys_EvictControl(esys_, ESYS_TR_RH_OWNER, primary, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                 ESYS_TR_NONE, storageKeyHandle, &persistent));
        Esys_FlushContext(esys_, primary);
        Esys_TR_Close(esys_, &persistent);
    }

    // Nothing when no key is persistent there.
    void evict() {
        ESYS_TR persistent = ESYS_TR_NONE;
        if (Esys_TR_FromTPMPublic(esys_, storageKeyHandle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                  &persistent) != TSS2_RC_SUCCESS) {
            return;
        }
        ESYS_TR none = ESYS_TR_NONE;
        expect(Esys_EvictControl(esys_, ESYS_TR_RH_OWNER, persistent, ESYS_TR_PASSWORD,
                                 ESYS_TR_NONE, ESYS_TR_NONE, storageKeyHandle, &none));
    }

    void clear() {
        expect(Esys_Clear(esys_, ESYS_TR_RH_LOCKOUT, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE));
    }

  private:
    static constexpr TPM2_HANDLE storageKeyHandle = 0x81000001;
    static void expect(TSS2_RC rc) {
        if (rc != TSS2_RC_SUCCESS) throw std::runtime_error(Tss2_RC_Decode(rc));
    }

    TSS2_TCTI_CONTEXT* tcti_ = nullptr;
    ESYS_CONTEXT* esys_ = nullptr;
};

// A storage key of the usual attributes; callers change what they test.
TPM2B_PUBLIC storageTemplate() {
    TPM2B_PUBLIC key{};
    auto& area = key.publicArea;
    area.type = TPM2_ALG_ECC;
    area.nameAlg = TPM2_ALG_SHA256;
    area.objectAttributes = TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT | TPMA_OBJECT_FIXEDTPM |
                            TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                            TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_NODA;
    auto& ecc = area.parameters.eccDetail;
    ecc.symmetric = {
        .algorithm = TPM2_ALG_AES, .keyBits = {.aes = 128}, .mode = {.aes = TPM2_ALG_CFB}};
    ecc.scheme.scheme = TPM2_ALG_NULL;
    ecc.curveID = TPM2_ECC_NIST_P256;
    ecc.kdf.scheme = TPM2_ALG_NULL;
    return key;
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
    unprotected[ObjectIdentifierHeader::size - 1] &=
        static_cast<std::uint8_t>(~accessControlBiometryAny);
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

// The simulator holds three loaded objects, the storage key among them, and has no resource
// manager: more keys than that, held at once and used in turn, must each be loaded when used, and
// making a key needs a slot of its own.
TEST_F(TpmKeyProcessorTest, MoreKeysThanTheTpmHoldsWorkInTurn) {
    std::vector<std::unique_ptr<ProcessorKey>> keys;
    for (int round = 0; round < 5; ++round) {
        keys.push_back(processor().createKey(256, plainWord));
        keys.push_back(processor().rebuildKey(keys.back()->objectIdentifier(), nullptr));
        const Bytes message = bytesOf("round " + std::to_string(round));
        for (const auto& key : keys) {
            EXPECT_TRUE(verifiesDigest(key->publicKeyAttributes(), crypto::sha384(message),
                                       key->sign(ecdsaSha384, message)));
        }
    }
}

// Whether a key made while a storage key of the template is persistent still loads once it is
// gone: it does not when the key was made under the persistent one.
TEST_F(TpmKeyProcessorTest, UsesAPersistentStorageKeyOnlyWhenItIsOne) {
    struct Case {
        const char* what;
        void (*change)(TPM2B_PUBLIC&);
        bool used;
    };
    const Case cases[] = {
        // Another key than the one made from the usual template: its unique field differs.
        {"ECC storage key", [](TPM2B_PUBLIC& key) { key.publicArea.unique.ecc.x.size = 1; }, true},
        {"P-384 storage key",
         [](TPM2B_PUBLIC& key) {
             key.publicArea.parameters.eccDetail.curveID = TPM2_ECC_NIST_P384;
         },
         true},
        {"unrestricted key",
         [](TPM2B_PUBLIC& key) {
             key.publicArea.objectAttributes &= ~TPMA_OBJECT_RESTRICTED;
             key.publicArea.parameters.eccDetail.symmetric.algorithm = TPM2_ALG_NULL;
         },
         false},
        {"signing key",
         [](TPM2B_PUBLIC& key) {
             key.publicArea.objectAttributes ^= TPMA_OBJECT_DECRYPT | TPMA_OBJECT_SIGN_ENCRYPT;
             key.publicArea.parameters.eccDetail.symmetric.algorithm = TPM2_ALG_NULL;
             key.publicArea.parameters.eccDetail.scheme = {
                 .scheme = TPM2_ALG_ECDSA, .details = {.ecdsa = {.hashAlg = TPM2_ALG_SHA256}}};
         },
         false},
        {"key that needs a policy",
         [](TPM2B_PUBLIC& key) { key.publicArea.objectAttributes &= ~TPMA_OBJECT_USERWITHAUTH; },
         false},
    };
    for (const auto& [what, change, used] : cases) {
        auto keyTemplate = storageTemplate();
        change(keyTemplate);
        TpmOwner(*tcti_).persist(keyTemplate);
        Bytes identifier;
        {
            TpmKeyProcessor provisioned(*tcti_, gate_);
            identifier = provisioned.createKey(256, plainWord)->objectIdentifier();
        }
        TpmOwner(*tcti_).evict();
        TpmKeyProcessor unprovisioned(*tcti_, gate_);
        if (used) {
            EXPECT_THROW(unprovisioned.rebuildKey(identifier, nullptr), PlatformError) << what;
        } else {
            EXPECT_NO_THROW(unprovisioned.rebuildKey(identifier, nullptr)) << what;
        }
    }
}

TEST_F(TpmKeyProcessorTest, KeysOfAClearedTpmSaySo) {
    Bytes identifier;
    {
        TpmKeyProcessor before(*tcti_, gate_);
        identifier = before.createKey(256, plainWord)->objectIdentifier();
    }
    TpmOwner(*tcti_).clear();
    TpmKeyProcessor after(*tcti_, gate_);
    try {
        after.rebuildKey(identifier, nullptr);
        FAIL() << "a cleared TPM loaded the key";
    } catch (const PlatformError& error) {
        EXPECT_NE(std::string(error.what()).find("the TPM has been cleared"), std::string::npos)
            << error.what();
    }
}

TEST(TpmCurves, AKeyIsMadeOnlyOnACurveTheTpmLists) {
    struct Case {
        std::vector<TPM2_ECC_CURVE> listed;
        int sizeInBits;
        bool made;
    };
    const Case cases[] = {
        {{TPM2_ECC_NIST_P256, TPM2_ECC_NIST_P384}, 384, true},
        {{TPM2_ECC_NIST_P256, TPM2_ECC_BN_P256}, 256, true},
        {{TPM2_ECC_NIST_P256, TPM2_ECC_BN_P256}, 384, false},
        {{TPM2_ECC_BN_P256, TPM2_ECC_NIST_P384}, 256, false},
        {{}, 256, false},
    };
    for (const auto& [listed, sizeInBits, made] : cases) {
        if (made) {
            EXPECT_NO_THROW(requireCurve(listed, sizeInBits)) << sizeInBits;
            continue;
        }
        try {
            requireCurve(listed, sizeInBits);
            ADD_FAILURE() << "made a P-" << sizeInBits << " key";
        } catch (const PlatformError& error) {
            EXPECT_STREQ(error.what(),
                         ("Key processor: this TPM cannot make P-" + std::to_string(sizeInBits) +
                          " keys (it has no P-" + std::to_string(sizeInBits) + " curve)")
                             .c_str());
        }
    }
}

// TPM2_TestParms answers a size the TPM lacks with a parameter error (TPM_RC_VALUE or
// TPM_RC_KEY_SIZE on parameter 1, as a format-one code); no RSA at all is TPM_RC_TYPE.
TEST(TpmRsaSizes, AKeyIsMadeOnlyWhenTheTpmTakesItsParameters) {
    EXPECT_NO_THROW(requireRsaKeySize(TSS2_RC_SUCCESS, 3072));
    for (const TSS2_RC refused : {TPM2_RC_VALUE | TPM2_RC_P | TPM2_RC_1,
                                  TPM2_RC_KEY_SIZE | TPM2_RC_P | TPM2_RC_1, TPM2_RC_TYPE}) {
        try {
            requireRsaKeySize(refused, 3072);
            ADD_FAILURE() << "made an RSA-3072 key after " << refused;
        } catch (const PlatformError& error) {
            EXPECT_STREQ(error.what(),
                         "Key processor: this TPM cannot make RSA-3072 keys (it refuses "
                         "RSA-3072's parameters)");
        }
    }
}

// Codes reach us from the TPM itself, through a resource manager that marks some with its own
// layer, and from the software stack; format-one codes carry the handle, session or parameter.
TEST(TpmTroubles, AreToldApartWhereverTheCodeComesFrom) {
    const std::pair<TSS2_RC, TpmTrouble> cases[] = {
        {TPM2_RC_LOCKOUT, TpmTrouble::lockout},
        {TSS2_RESMGR_TPM_RC_LAYER | TPM2_RC_LOCKOUT, TpmTrouble::lockout},
        {TPM2_RC_RETRY, TpmTrouble::busy},
        {TPM2_RC_YIELDED, TpmTrouble::busy},
        {TPM2_RC_TESTING, TpmTrouble::busy},
        {TSS2_RESMGR_RC_LAYER | TPM2_RC_RETRY, TpmTrouble::busy},
        {TSS2_TCTI_RC_TRY_AGAIN, TpmTrouble::busy},
        {TSS2_TCTI_RC_IO_ERROR, TpmTrouble::unreachable},
        {TSS2_TCTI_RC_NO_CONNECTION, TpmTrouble::unreachable},
        {TSS2_RESMGR_RC_LAYER | TPM2_RC_OBJECT_MEMORY, TpmTrouble::noRoom},
        {TPM2_RC_INTEGRITY | TPM2_RC_P | TPM2_RC_1, TpmTrouble::integrity},
        {TPM2_RC_BAD_AUTH | TPM2_RC_S | TPM2_RC_1, TpmTrouble::authFailed},
        {TPM2_RC_AUTH_FAIL | TPM2_RC_S | TPM2_RC_2, TpmTrouble::authFailed},
        // Look-alikes: a missing handle is not a cleared TPM, nor a software error a busy one.
        {TPM2_RC_HANDLE | TPM2_RC_1, TpmTrouble::other},
        {TPM2_RC_SIZE | TPM2_RC_P | TPM2_RC_1, TpmTrouble::other},
        {TSS2_ESYS_RC_BAD_REFERENCE, TpmTrouble::other},
        {TSS2_ESYS_RC_GENERAL_FAILURE, TpmTrouble::other},
    };
    for (const auto& [rc, trouble] : cases) EXPECT_EQ(troubleOf(rc), trouble) << std::hex << rc;
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
