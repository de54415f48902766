#include "platform/token_store/token_watcher.hpp"

#include <gtest/gtest.h>

#include "platform/token_store/token_store.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::platform::token_store {
namespace {

constexpr std::string_view driver = "org.keyloft.token";

class Watching : public ::testing::Test {
  protected:
    std::filesystem::path dbPath() const { return folder.path() / "tokens.db"; }
    Token writer() const {
        const auto drivers = TokenStore::open(dbPath(), driver).driverConfigurations();
        return drivers.at(std::string(driver)).addTokenConfiguration("user");
    }
    TokenItems oneCertificate(std::uint8_t id) const {
        return {CertificateItem{Bytes{id}, std::nullopt, certificate}};
    }

    // The items as read, for comparing with what was written.
    static TokenItems itemsOf(const TokenSnapshot& snapshot) {
        TokenItems items;
        for (const auto& item : snapshot.items) items.push_back(*item);
        return items;
    }

    testing::TemporaryFolder folder;
    TokenWatcher watcher{dbPath(), std::string(driver), "user"};
    // The store keeps a certificate's bytes without reading them.
    Bytes certificate = Bytes(300, 0xCE);
};

TEST_F(Watching, ReadsAMissingStoreAsEmptyOnceWithoutCreatingIt) {
    const auto first = watcher.changes();
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->items.empty());
    EXPECT_FALSE(first->configurationData);
    EXPECT_FALSE(watcher.changes());
    EXPECT_FALSE(std::filesystem::exists(dbPath()));
}

TEST_F(Watching, ReadsAgainOnlyAfterAWriterCommitted) {
    const auto token = writer();
    token.replaceItems(oneCertificate(1));
    token.replaceConfigurationData(Bytes{1, 2, 3});
    const auto first = watcher.changes();
    ASSERT_TRUE(first);
    EXPECT_EQ(itemsOf(*first), oneCertificate(1));
    ASSERT_TRUE(first->configurationData);
    EXPECT_EQ(*first->configurationData, (Bytes{1, 2, 3}));
    EXPECT_FALSE(watcher.changes());

    token.replaceItems(oneCertificate(2));
    const auto second = watcher.changes();
    ASSERT_TRUE(second);
    EXPECT_EQ(itemsOf(*second), oneCertificate(2));
    EXPECT_FALSE(watcher.changes());
}

TEST_F(Watching, FindsAStoreMadeAfterItStarted) {
    ASSERT_TRUE(watcher.changes());
    writer().replaceItems(oneCertificate(3));
    const auto later = watcher.changes();
    ASSERT_TRUE(later);
    EXPECT_EQ(itemsOf(*later), oneCertificate(3));
}

// A connection kept to a store whose folder was renamed away or replaced would go on reading the
// old file.
TEST_F(Watching, FollowsTheStoreAtThePathWhenItsFolderIsReplaced) {
    const auto card = folder.path() / "card";
    const auto away = folder.path() / "away";
    const auto write = [&](std::uint8_t id) {
        std::filesystem::create_directory(card);
        TokenStore::open(card / "tokens.db", driver)
            .driverConfigurations()
            .at(std::string(driver))
            .addTokenConfiguration("user")
            .replaceItems(oneCertificate(id));
    };
    TokenWatcher cardWatcher(card / "tokens.db", std::string(driver), "user");
    write(1);
    const auto first = cardWatcher.changes();
    ASSERT_TRUE(first);
    EXPECT_EQ(itemsOf(*first), oneCertificate(1));

    std::filesystem::rename(card, away);
    const auto removed = cardWatcher.changes();
    ASSERT_TRUE(removed);
    EXPECT_TRUE(removed->items.empty());
    EXPECT_FALSE(cardWatcher.changes());

    write(2);
    const auto other = cardWatcher.changes();
    ASSERT_TRUE(other);
    EXPECT_EQ(itemsOf(*other), oneCertificate(2));

    // Put back in the other's place: read again although nothing was committed to it meanwhile.
    std::filesystem::remove_all(card);
    std::filesystem::rename(away, card);
    const auto restored = cardWatcher.changes();
    ASSERT_TRUE(restored);
    EXPECT_EQ(itemsOf(*restored), oneCertificate(1));
    EXPECT_FALSE(cardWatcher.changes());
}

// Readers tell what changed by comparing the items' addresses.
TEST_F(Watching, HandsOutTheItemsOfRowsThatDidNotChangeAgain) {
    const auto token = writer();
    TokenItems items;
    for (std::uint8_t id = 1; id <= 4; ++id) items.push_back(oneCertificate(id).front());
    token.replaceItems(items);
    token.replaceConfigurationData(Bytes{1, 2, 3});
    const auto first = watcher.changes();
    ASSERT_TRUE(first);

    token.relabelItemsAt({1}, "relabelled");
    const auto relabelled = watcher.changes();
    ASSERT_TRUE(relabelled);
    EXPECT_EQ(relabelled->items[0], first->items[0]);
    EXPECT_NE(relabelled->items[1], first->items[1]);
    EXPECT_EQ(std::get<CertificateItem>(*relabelled->items[1]).label, "relabelled");
    EXPECT_EQ(relabelled->configurationData, first->configurationData);

    // The rows after the removed one move up a position but keep their rowid.
    token.removeItemsAt({0});
    const auto removed = watcher.changes();
    ASSERT_TRUE(removed);
    ASSERT_EQ(removed->items.size(), 3U);
    EXPECT_EQ(removed->items[0], relabelled->items[1]);
    EXPECT_EQ(removed->items[1], first->items[2]);
    EXPECT_EQ(removed->items[2], first->items[3]);

    token.replaceConfigurationData(Bytes{4});
    const auto reconfigured = watcher.changes();
    ASSERT_TRUE(reconfigured && reconfigured->configurationData);
    EXPECT_EQ(*reconfigured->configurationData, Bytes{4});
    EXPECT_EQ(reconfigured->items, removed->items);
}

// SQLite gives a new row the rowid after the highest, so the last row's rowid comes back.
TEST_F(Watching, ReadsARowAfreshWhenItsRowidWasGivenAgain) {
    const auto token = writer();
    token.replaceItems(oneCertificate(1));
    const auto first = watcher.changes();
    ASSERT_TRUE(first);

    const Bytes other(300, 0x0E);
    token.writeCommittingEvenOnThrow([&] {
        token.removeItemsAt({0});
        token.appendItems({CertificateItem{Bytes{1}, std::nullopt, other}});
    });
    const auto second = watcher.changes();
    ASSERT_TRUE(second);
    ASSERT_EQ(second->items.size(), 1U);
    EXPECT_NE(second->items[0], first->items[0]);
    EXPECT_EQ(std::get<CertificateItem>(*second->items[0]).certificate, other);
}

}  // namespace
}  // namespace keyloft::platform::token_store
