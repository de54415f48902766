#include "pkcs11/object_catalog.hpp"

#include <gtest/gtest.h>

#include "card/identity_key.hpp"
#include "card/identity_writes.hpp"
#include "keys/stored_key_codec.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::pkcs11 {
namespace {

using platform::token_store::SharedTokenItem;
using platform::token_store::TokenSnapshot;

SharedTokenItem certificateItem(const Bytes& certificate, std::uint8_t id,
                                std::optional<std::string> label) {
    auto item = *card::makeCertificateItem(certificate, Bytes{id});
    item.label = std::move(label);
    return std::make_shared<const platform::token_store::TokenItem>(std::move(item));
}

SharedTokenItem keyItem(const Bytes& certificate, std::uint8_t id,
                        std::optional<std::string> label) {
    auto item = *card::makeKeyItem(certificate, Bytes{id});
    item.label = std::move(label);
    return std::make_shared<const platform::token_store::TokenItem>(std::move(item));
}

Bytes publicKeyHashOf(const SharedTokenItem& key) {
    return card::identityKeyOf(std::get<platform::token_store::KeyItem>(*key))->publicKeyHash;
}

std::shared_ptr<const Bytes> configuration(const keys::StoredKeyMap& keys) {
    return std::make_shared<const Bytes>(keys::encodeStoredKeys(keys));
}

keys::KeyStorage exportable(const Bytes& hash) {
    return {.sealedKey = keys::SealedKey{hash, "ec", Bytes(8), Bytes(8)}};
}

keys::KeyStorage bound(const Bytes& hash) {
    return {.boundKey = keys::BoundKey{hash, Bytes(8)}};
}

std::string text(const Bytes* value) {
    return value ? std::string(value->begin(), value->end()) : "<absent>";
}

// Two identities, each a certificate item and a key item of one id, read again and again.
class Catalogs : public ::testing::Test {
  protected:
    // The next catalog, made from the last one.
    const ObjectCatalog& read(std::vector<SharedTokenItem> items,
                              std::shared_ptr<const Bytes> configurationData = nullptr) {
        catalogs.push_back(std::make_unique<const ObjectCatalog>(
            *catalogs.back(), TokenSnapshot{std::move(items), std::move(configurationData)},
            [this](const ObjectIdentity&) { return nextHandle++; }));
        return *catalogs.back();
    }
    static std::vector<CK_OBJECT_HANDLE> all(const ObjectCatalog& catalog) {
        return catalog.search({});
    }
    CK_OBJECT_HANDLE handle(const ObjectCatalog& catalog, CK_OBJECT_CLASS objectClass,
                            std::uint8_t id) {
        return catalog.handleOf({objectClass, Bytes{id}}).value_or(CK_INVALID_HANDLE);
    }
    std::string label(const ObjectCatalog& catalog, CK_OBJECT_CLASS objectClass, std::uint8_t id) {
        const auto object = catalog.find(handle(catalog, objectClass, id));
        return object ? text(object->attributes.find(CKA_LABEL)) : "<no object>";
    }

    Bytes certificateA = testing::makeCertificate(testing::makeEcKey().get(), "A");
    Bytes certificateB = testing::makeCertificate(testing::makeEcKey().get(), "B");
    SharedTokenItem aCertificate = certificateItem(certificateA, 1, "a");
    SharedTokenItem aKey = keyItem(certificateA, 1, "a");
    SharedTokenItem bCertificate = certificateItem(certificateB, 2, "b");
    SharedTokenItem bKey = keyItem(certificateB, 2, "b");
    std::shared_ptr<const Bytes> bothKeys =
        configuration({{publicKeyHashOf(aKey), exportable(publicKeyHashOf(aKey))},
                       {publicKeyHashOf(bKey), exportable(publicKeyHashOf(bKey))}});
    CK_OBJECT_HANDLE nextHandle = 1;
    std::vector<std::unique_ptr<const ObjectCatalog>> catalogs;

    void SetUp() override { catalogs.push_back(std::make_unique<const ObjectCatalog>()); }
};

TEST_F(Catalogs, KeepTheObjectsOfItemsThatDidNotChange) {
    const auto& first = read({aCertificate, aKey, bCertificate, bKey}, bothKeys);
    ASSERT_EQ(all(first).size(), 6U);
    const auto& second = read({aCertificate, aKey, bCertificate, bKey}, bothKeys);
    EXPECT_EQ(all(second), all(first));
    EXPECT_EQ(nextHandle, 7U);
    for (const auto handle : all(second)) EXPECT_EQ(second.find(handle), first.find(handle));
}

TEST_F(Catalogs, KeepHandlesAcrossARelabelAndGiveTheIdentityTheKeyItemsLabel) {
    const auto& first = read({aCertificate, aKey, bCertificate, bKey}, bothKeys);
    // The tool relabels both items; a key item's label alone names the whole identity.
    const auto& relabelled =
        read({aCertificate, aKey, bCertificate, keyItem(certificateB, 2, "c")}, bothKeys);
    EXPECT_TRUE(all(relabelled) == all(first));
    EXPECT_EQ(nextHandle, 7U);
    for (const auto objectClass : {CKO_CERTIFICATE, CKO_PUBLIC_KEY, CKO_PRIVATE_KEY}) {
        EXPECT_EQ(label(relabelled, objectClass, 2), "c");
        EXPECT_EQ(label(relabelled, objectClass, 1), "a");
        EXPECT_EQ(relabelled.find(handle(relabelled, objectClass, 1)),
                  first.find(handle(first, objectClass, 1)));
    }
    // Without a key item's label the certificate item's names the identity.
    const auto& unlabelledKey =
        read({aCertificate, aKey, bCertificate, keyItem(certificateB, 2, std::nullopt)}, bothKeys);
    EXPECT_EQ(label(unlabelledKey, CKO_PRIVATE_KEY, 2), "b");
    EXPECT_TRUE(all(unlabelledKey) == all(first));
    // Nor when the key item has gone.
    read({aCertificate, aKey, bCertificate, keyItem(certificateB, 2, "c")}, bothKeys);
    const auto& keyGone = read({aCertificate, aKey, bCertificate}, bothKeys);
    EXPECT_EQ(label(keyGone, CKO_CERTIFICATE, 2), "b");
}

TEST_F(Catalogs, KeepTheOthersHandlesWhenAnIdentityGoesAndNeverReuseItsHandles) {
    const auto& first = read({aCertificate, aKey, bCertificate, bKey}, bothKeys);
    const auto removedHandle = handle(first, CKO_PRIVATE_KEY, 1);
    const auto& removed = read({bCertificate, bKey}, bothKeys);
    EXPECT_FALSE(removed.find(removedHandle));
    for (const auto objectClass : {CKO_CERTIFICATE, CKO_PUBLIC_KEY, CKO_PRIVATE_KEY})
        EXPECT_EQ(handle(removed, objectClass, 2), handle(first, objectClass, 2));

    const auto& back = read(
        {bCertificate, bKey, certificateItem(certificateA, 1, "a"), keyItem(certificateA, 1, "a")},
        bothKeys);
    EXPECT_FALSE(back.find(removedHandle));
    EXPECT_GE(handle(back, CKO_PRIVATE_KEY, 1), 7U);
}

TEST_F(Catalogs, KeepTheHandleOfAReplacedCertificate) {
    const auto& first = read({aCertificate, aKey}, bothKeys);
    const Bytes renewed = testing::makeCertificate(testing::makeEcKey().get(), "renewed");
    const auto& second = read({certificateItem(renewed, 1, "a"), aKey}, bothKeys);
    const auto certificate = handle(second, CKO_CERTIFICATE, 1);
    EXPECT_EQ(certificate, handle(first, CKO_CERTIFICATE, 1));
    EXPECT_EQ(*second.find(certificate)->attributes.find(CKA_VALUE), renewed);
    EXPECT_EQ(nextHandle, 4U);
}

// The configuration data alone decides whether a key item has a private key, and what it promises.
TEST_F(Catalogs, FollowTheStoredKeysWhenOnlyTheConfigurationDataChanges) {
    const auto& first = read({aCertificate, aKey, bCertificate, bKey}, bothKeys);
    const auto privateA = handle(first, CKO_PRIVATE_KEY, 1);
    const auto neverExtractable = [&](const ObjectCatalog& catalog) {
        const auto object = catalog.find(handle(catalog, CKO_PRIVATE_KEY, 1));
        return object ? object->allows(CKA_NEVER_EXTRACTABLE) : false;
    };

    const auto& withoutA =
        read({aCertificate, aKey, bCertificate, bKey},
             configuration({{publicKeyHashOf(bKey), exportable(publicKeyHashOf(bKey))}}));
    EXPECT_FALSE(withoutA.find(privateA));
    EXPECT_EQ(all(withoutA).size(), 5U);
    EXPECT_EQ(handle(withoutA, CKO_PUBLIC_KEY, 1), handle(first, CKO_PUBLIC_KEY, 1));
    EXPECT_EQ(withoutA.find(handle(first, CKO_CERTIFICATE, 1)),
              first.find(handle(first, CKO_CERTIFICATE, 1)));
    EXPECT_FALSE(withoutA.storedKey(publicKeyHashOf(aKey)));

    const auto& boundA =
        read({aCertificate, aKey, bCertificate, bKey},
             configuration({{publicKeyHashOf(aKey), bound(publicKeyHashOf(aKey))},
                            {publicKeyHashOf(bKey), exportable(publicKeyHashOf(bKey))}}));
    EXPECT_TRUE(neverExtractable(boundA));
    EXPECT_NE(handle(boundA, CKO_PRIVATE_KEY, 1), privateA);
    const auto boundHandle = handle(boundA, CKO_PRIVATE_KEY, 1);

    const auto& exportableA = read({aCertificate, aKey, bCertificate, bKey}, bothKeys);
    EXPECT_FALSE(neverExtractable(exportableA));
    EXPECT_EQ(handle(exportableA, CKO_PRIVATE_KEY, 1), boundHandle);
    EXPECT_TRUE(exportableA.storedKey(publicKeyHashOf(aKey)));

    // Damaged data leaves the keys unusable, the certificates readable.
    const auto& damaged = read({aCertificate, aKey, bCertificate, bKey},
                               std::make_shared<const Bytes>(Bytes{1, 2, 3}));
    EXPECT_EQ(all(damaged).size(), 4U);
    EXPECT_EQ(handle(damaged, CKO_PRIVATE_KEY, 2), CK_INVALID_HANDLE);

    // A record holding no key leaves its identity without a private key, the others whole.
    const auto& emptyRecord =
        read({aCertificate, aKey, bCertificate, bKey},
             configuration({{publicKeyHashOf(aKey), keys::KeyStorage{}},
                            {publicKeyHashOf(bKey), exportable(publicKeyHashOf(bKey))}}));
    EXPECT_EQ(all(emptyRecord).size(), 5U);
    EXPECT_EQ(handle(emptyRecord, CKO_PRIVATE_KEY, 1), CK_INVALID_HANDLE);
    EXPECT_NE(handle(emptyRecord, CKO_PRIVATE_KEY, 2), CK_INVALID_HANDLE);
    EXPECT_FALSE(emptyRecord.storedKey(publicKeyHashOf(aKey)));
}

}  // namespace
}  // namespace keyloft::pkcs11
