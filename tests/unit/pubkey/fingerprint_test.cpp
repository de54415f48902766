#include "pubkey/fingerprint.hpp"

#include <gtest/gtest.h>

#include "key_items.hpp"
#include "keyloft/error.hpp"
#include "platform/crypto/digest.hpp"
#include "pubkey/key_type_description.hpp"
#include "pubkey/ssh_public_key.hpp"

namespace keyloft::pubkey {
namespace {

struct FingerprintCase {
    HashType type;
    HashEncoding encoding;
    std::size_t length;
    const char* prefix;
};

class FingerprintText : public ::testing::TestWithParam<FingerprintCase> {};

TEST_P(FingerprintText, HasTheLengthAndFormOfItsTypeAndEncoding) {
    const auto [type, encoding, length, prefix] = GetParam();
    const auto key = testing::makeEcKey("P-384");
    const std::string text =
        fingerprint(keyHash(testing::keyItemFor(key.get()), type), type, encoding);
    EXPECT_EQ(text.size(), length) << text;
    EXPECT_TRUE(text.starts_with(prefix)) << text;
    const bool hex = encoding == HashEncoding::hex;
    const bool padded = !hex && type != HashType::ssh;
    EXPECT_EQ(text.ends_with('='), padded) << text;
    if (hex) {
        EXPECT_EQ(text.find_first_not_of("0123456789ABCDEF"), std::string::npos) << text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FingerprintText,
    ::testing::Values(FingerprintCase{HashType::sha1, HashEncoding::hex, 40, ""},
                      FingerprintCase{HashType::sha256, HashEncoding::hex, 64, ""},
                      FingerprintCase{HashType::ssh, HashEncoding::hex, 64, ""},
                      FingerprintCase{HashType::sha1, HashEncoding::base64, 28, ""},
                      FingerprintCase{HashType::sha256, HashEncoding::base64, 44, ""},
                      FingerprintCase{HashType::ssh, HashEncoding::base64, 50, "SHA256:"}));

TEST(KeyHash, TakesEachDigestFromItsSource) {
    const auto key = testing::makeRsaKey();
    const auto item = testing::keyItemFor(key.get());
    EXPECT_EQ(keyHash(item, HashType::sha1), platform::sha1(*item.publicKeyData));
    EXPECT_EQ(keyHash(item, HashType::sha256), platform::sha256(*item.publicKeyData));
    EXPECT_EQ(keyHash(item, HashType::ssh), platform::sha256(sshPublicKeyBlob(item)));
}

TEST(KeyHash, NamesWhatTheKeyItemLacks) {
    const auto key = testing::makeEcKey();
    auto noHash = testing::keyItemFor(key.get());
    noHash.publicKeyHash.reset();
    auto noData = testing::keyItemFor(key.get());
    noData.publicKeyData.reset();
    const std::tuple<platform::TesseraTokenKeyItem, HashType, const char*> cases[] = {
        {noHash, HashType::sha1, "key has invalid public key hash"},
        {noData, HashType::sha256, "key has invalid public key data"},
        {noData, HashType::ssh, "key has invalid public key data"},
    };
    for (const auto& [item, type, message] : cases) {
        try {
            keyHash(item, type);
            ADD_FAILURE() << "no error for " << message;
        } catch (const KeyloftError& error) {
            EXPECT_STREQ(error.what(), message);
        }
    }
    EXPECT_NO_THROW(keyHash(noHash, HashType::sha256));
    EXPECT_NO_THROW(keyHash(noData, HashType::sha1));
}

TEST(KeyTypeDescription, NamesTheKindSizeAndBinding) {
    const std::tuple<std::string, int, bool, const char*> cases[] = {
        {"ec", 256, true, "p-256"},       {"ec", 256, false, "p-256-ne"},
        {"ec", 384, true, "p-384"},       {"ec", 384, false, "p-384-ne"},
        {"ec", 521, true, "p-521"},       {"rsa", 3072, true, "rsa-3072"},
        {"rsa", 2048, false, "rsa-2048"}, {"dsa", 1024, true, "unknown"},
        {"", 0, false, "unknown"},
    };
    for (const auto& [type, bits, exportable, text] : cases) {
        platform::TesseraTokenKeyItem item;
        item.keyType = type;
        item.keySizeInBits = bits;
        EXPECT_EQ(keyTypeDescription(item, exportable), text);
    }
}

}  // namespace
}  // namespace keyloft::pubkey
