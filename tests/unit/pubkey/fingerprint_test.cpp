#include "pubkey/fingerprint.hpp"

#include <gtest/gtest.h>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "pubkey/key_type_description.hpp"
#include "pubkey/ssh_public_key.hpp"
#include "public_keys.hpp"

namespace keyloft::pubkey {
namespace {

TEST(Fingerprint, HasTheLengthAndFormOfItsTypeAndEncoding) {
    const auto key = testing::publicKeyOf(testing::makeEcKey("P-384").get());
    const std::tuple<HashType, HashEncoding, std::size_t> cases[] = {
        {HashType::sha1, HashEncoding::hex, 40},      {HashType::sha256, HashEncoding::hex, 64},
        {HashType::ssh, HashEncoding::hex, 64},       {HashType::sha1, HashEncoding::base64, 28},
        {HashType::sha256, HashEncoding::base64, 44}, {HashType::ssh, HashEncoding::base64, 50},
    };
    for (const auto& [type, encoding, length] : cases) {
        const std::string text = fingerprint(keyHash(key, type), type, encoding);
        EXPECT_EQ(text.size(), length) << text;
        if (encoding == HashEncoding::hex) {
            EXPECT_EQ(text.find_first_not_of("0123456789ABCDEF"), std::string::npos) << text;
        } else {
            EXPECT_EQ(text.ends_with('='), type != HashType::ssh) << text;
            EXPECT_EQ(text.starts_with("SHA256:"), type == HashType::ssh) << text;
        }
    }
}

TEST(KeyHash, TakesEachDigestFromItsSourceOrNamesWhatIsMissing) {
    const auto key = testing::publicKeyOf(testing::makeRsaKey().get());
    const Bytes& data = key.externalRepresentation;
    EXPECT_EQ(keyHash(key, HashType::sha1), platform::crypto::sha1(data));
    EXPECT_EQ(keyHash(key, HashType::sha256), platform::crypto::sha256(data));
    EXPECT_EQ(keyHash(key, HashType::ssh), platform::crypto::sha256(sshPublicKeyBlob(key)));

    // What a key item whose certificate gives no key is listed with.
    const PublicKeyAttributes noData;
    const std::tuple<PublicKeyAttributes, HashType, const char*> failing[] = {
        {noData, HashType::sha1, "key has invalid public key hash"},
        {noData, HashType::sha256, "key has invalid public key data"},
        {noData, HashType::ssh, "key has invalid public key data"},
    };
    for (const auto& [lacking, type, message] : failing) {
        try {
            keyHash(lacking, type);
            ADD_FAILURE() << "no error: " << message;
        } catch (const KeyloftError& error) {
            EXPECT_STREQ(error.what(), message);
        }
    }
}

TEST(KeyTypeDescription, NamesTheKindSizeAndBinding) {
    const std::tuple<std::string, int, bool, const char*> cases[] = {
        {"ec", 256, true, "p-256"},     {"ec", 384, false, "p-384-ne"},
        {"ec", 521, true, "p-521"},     {"rsa", 3072, false, "rsa-3072"},
        {"dsa", 1024, true, "unknown"},
    };
    for (const auto& [type, bits, exportable, text] : cases) {
        EXPECT_EQ(keyTypeDescription(PublicKeyAttributes{type, bits, {}}, exportable), text);
    }
}

}  // namespace
}  // namespace keyloft::pubkey
