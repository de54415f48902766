#include "card/identity_writes.hpp"
#include "card/identity_key.hpp"
#include "card/identity_lookup.hpp"
#include "card/user_card.hpp"

#include <gtest/gtest.h>

#include "base/error.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/crypto/digest.hpp"
#include "support/temporary_folder.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::card {
namespace {

using platform::token_store::TokenItems;

struct Identity {
    Bytes certificate;
    Bytes hash;
    platform::token_store::CertificateItem certificateItem;
    platform::token_store::KeyItem keyItem;
};

Identity makeIdentity(const char* curve) {
    const auto key = testing::makeEcKey(curve);
    Identity identity;
    identity.certificate = testing::makeCertificate(key.get());
    identity.hash = certificatePublicKeyHash(identity.certificate);
    identity.certificateItem = *makeCertificateItem(identity.certificate, identity.hash);
    identity.keyItem = *makeKeyItem(identity.certificate, identity.hash);
    return identity;
}

class IdentityRemoval : public ::testing::Test {
  protected:
    platform::token_store::Token token() const {
        const auto drivers =
            platform::token_store::TokenStore::open(folder.path() / "tokens.db", driverClassID)
                .driverConfigurations();
        return drivers.at("org.keyloft.token").addTokenConfiguration("user");
    }

    testing::TemporaryFolder folder;
    Identity a = makeIdentity("P-256");
    Identity b = makeIdentity("P-384");
};

// The key item's key names the identity as its certificate item does.
TEST(IdentityKey, IsTheCertificatesKeyUnderTheCertificatesHash) {
    struct Case {
        testing::Pkey key;
        const char* type;
        int bits;
        std::size_t representation;
    };
    Case cases[] = {{testing::makeEcKey("P-256"), "ec", 256, 65},
                    {testing::makeEcKey("P-384"), "ec", 384, 97},
                    {testing::makeEcKey("P-521"), "ec", 521, 133},
                    {testing::makeRsaKey(2048), "rsa", 2048, 270}};
    for (const auto& [pkey, type, bits, representation] : cases) {
        const Bytes certificate = testing::makeCertificate(pkey.get());
        const auto key = identityKeyOf(certificate);
        ASSERT_TRUE(key) << type << bits;
        EXPECT_EQ(key->publicKey.keyType, type);
        EXPECT_EQ(key->publicKey.sizeInBits, bits);
        EXPECT_EQ(key->publicKey.externalRepresentation.size(), representation) << bits;
        EXPECT_EQ(key->publicKeyHash,
                  platform::crypto::sha1(key->publicKey.externalRepresentation));
        EXPECT_EQ(key->publicKeyHash, certificatePublicKeyHash(certificate));
    }
    EXPECT_FALSE(identityKeyOf(Bytes{0x30, 0x00}));
    EXPECT_FALSE(makeKeyItem(Bytes{0x30, 0x00}, Bytes{1}));
    EXPECT_FALSE(makeCertificateItem(Bytes{0x30, 0x00}, Bytes{1}));
}

TEST(CertificatePublicKeyHash, RefusesBytesThatAreNoCertificate) {
    try {
        certificatePublicKeyHash(Bytes{0x30, 0x03, 0x02, 0x01, 0x00});
        FAIL();
    } catch (const KeyloftError& error) {
        EXPECT_EQ(error.text(), "Failed to parse certificate from data");
    }
}

TEST_F(IdentityRemoval, RemovesBothItemsAndDuplicatesKeepingTheRestInOrder) {
    token().replaceItems(
        {a.certificateItem, b.certificateItem, a.keyItem, b.keyItem, a.certificateItem});
    removeIdentityItems(token(), a.hash);
    EXPECT_EQ(token().items(), (TokenItems{b.certificateItem, b.keyItem}));
}

TEST_F(IdentityRemoval, HashesOfOtherLengthsAndKeysWithoutHashRemoveNothing) {
    auto withoutHash = b.keyItem;
    withoutHash.certificate = {0x30, 0x00};
    const TokenItems items{a.certificateItem, a.keyItem, withoutHash};
    token().replaceItems(items);
    for (const auto& hash : {Bytes(a.hash.begin(), a.hash.end() - 1), concat({a.hash, Bytes{0}})}) {
        removeIdentityItems(token(), hash);
        EXPECT_EQ(token().items().size(), 3U);
    }
    EXPECT_FALSE(itemMatchesHash(withoutHash, b.hash));
}

TEST_F(IdentityRemoval, ACorruptCertificateAnywhereFailsTheRemovalAndKeepsTheList) {
    auto corrupt = a.certificateItem;
    corrupt.certificate = {0x30, 0x00};
    const TokenItems items{b.certificateItem, b.keyItem, corrupt};
    token().replaceItems(items);
    EXPECT_THROW(removeIdentityItems(token(), b.hash), KeyloftError);
    EXPECT_EQ(token().items(), items);
}

TEST_F(IdentityRemoval, RemovingARecordReEncodesTheRest) {
    keys::StoredKeyMap records;
    records[a.hash].boundKey = keys::BoundKey{a.hash, Bytes{1, 2}, keys::BiometryProtection::off};
    records[b.hash].boundKey = keys::BoundKey{b.hash, Bytes{3}, keys::BiometryProtection::on};
    token().replaceConfigurationData(keys::encodeStoredKeys(records));

    removeKeyRecord(token(), a.hash);
    records.erase(a.hash);
    EXPECT_EQ(keys::decodeStoredKeys(token().configurationData()), records);

    removeKeyRecord(token(), Bytes(20, 0xEE));
    EXPECT_EQ(keys::decodeStoredKeys(token().configurationData()), records);
}

TEST_F(IdentityRemoval, RemovingFromATokenWithoutDataWritesAnEmptyRecordSet) {
    token();
    removeKeyRecord(token(), a.hash);
    const auto data = token().configurationData();
    ASSERT_TRUE(data);
    EXPECT_TRUE(keys::decodeStoredKeys(data).empty());
}

keys::KeyStorage storageOf(const Identity& identity) {
    return {.boundKey = keys::BoundKey{identity.hash, Bytes(200, identity.hash[0])}};
}

IdentityItems itemsOf(const Identity& identity) {
    return makeIdentityItems(identity.certificate, identity.hash, "label");
}

// The writes that add identities, as create-identity, import-identities and the module make them.
TEST_F(IdentityRemoval, AdditionsKeepEveryRecordWhateverWroteTheCardMeanwhile) {
    const Identity c = makeIdentity("P-256");
    const Identity d = makeIdentity("P-256");
    const auto card = token();
    {
        IdentityAdditions first(card);
        first.add(a.hash, storageOf(a), itemsOf(a));
        first.write();
    }
    const auto read = token().configurationData();
    // Added in place to the data read before: the data keeps its length.
    IdentityAdditions unchanged(card, read);
    unchanged.add(b.hash, storageOf(b), itemsOf(b));
    unchanged.write();
    EXPECT_EQ(token().configurationData()->size(), read->size());
    // Data that changed after it was read is read again, so nothing written meanwhile is lost;
    // a second write of the same additions adds to what the first wrote.
    IdentityAdditions stale(card, read);
    stale.add(c.hash, storageOf(c), itemsOf(c));
    stale.write();
    EXPECT_TRUE(stale.holds(b.hash));
    stale.add(d.hash, storageOf(d), itemsOf(d));
    stale.write();

    const keys::StoredKeyMap expected{{a.hash, storageOf(a)},
                                      {b.hash, storageOf(b)},
                                      {c.hash, storageOf(c)},
                                      {d.hash, storageOf(d)}};
    EXPECT_EQ(keys::decodeStoredKeys(token().configurationData()), expected);
    EXPECT_EQ(stale.records(), expected);
    EXPECT_EQ(token().items().size(), 8U);
}

}  // namespace
}  // namespace keyloft::card
