#include "platform/token_store/token_store.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <limits>
#include <string>

#include "base/error.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::platform::token_store {
namespace {

constexpr std::string_view driver = "org.keyloft.token";

class StoreFile : public ::testing::Test {
  protected:
    std::filesystem::path dbPath() const { return folder.path() / "tokens.db"; }

    Token userToken() const {
        const auto drivers = TokenStore::open(dbPath(), driver).driverConfigurations();
        return drivers.at(std::string(driver)).addTokenConfiguration("user");
    }

    void sql(const std::string& statement) const {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(dbPath().c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, statement.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    testing::TemporaryFolder folder;
};

TEST_F(StoreFile, NewStoreHoldsTheToolsDriverAndNoToken) {
    const auto registry = TokenStore::open(dbPath(), driver);
    const auto drivers = registry.driverConfigurations();
    ASSERT_EQ(drivers.size(), 1U);
    EXPECT_TRUE(drivers.at(std::string(driver)).tokenConfigurations().empty());

    struct stat info {};
    ASSERT_EQ(::stat(dbPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
}

TEST_F(StoreFile, AddedTokenStartsEmptyAndIsFoundAfterReopening) {
    const auto token = userToken();
    EXPECT_TRUE(token.items().empty());
    EXPECT_FALSE(token.configurationData());

    const auto reopened = TokenStore::open(dbPath(), driver).driverConfigurations();
    const auto tokens = reopened.at(std::string(driver)).tokenConfigurations();
    ASSERT_EQ(tokens.size(), 1U);
    EXPECT_EQ(tokens.begin()->first, "user");
}

TEST_F(StoreFile, ItemListIsReplacedAsAWholeAndKeepsOrderAndFields) {
    // The store keeps certificates as bytes and reads nothing out of them.
    const Bytes ecCertificate(400, 0xEC);
    const Bytes rsaCertificate(700, 0x5A);
    const Bytes id1(20, 0x11);
    const Bytes id2(20, 0x22);

    const CertificateItem certificateItem{id1, "Mail", ecCertificate};
    const KeyItem ecKey{id1, "Mail", ecCertificate, true, false, true};
    const KeyItem rsaKey{.objectID = id2, .certificate = rsaCertificate};  // no label, no flags

    const auto token = userToken();
    token.replaceItems({certificateItem, ecKey, rsaKey});
    const auto items = userToken().items();
    ASSERT_EQ(items.size(), 3U);
    EXPECT_EQ(std::get<CertificateItem>(items[0]), certificateItem);
    EXPECT_EQ(std::get<KeyItem>(items[1]), ecKey);
    EXPECT_EQ(std::get<KeyItem>(items[2]), rsaKey);
    EXPECT_FALSE(std::get<KeyItem>(items[2]).canSign);

    token.replaceItems({rsaKey});
    EXPECT_EQ(userToken().items(), TokenItems{rsaKey});
    token.replaceItems({});
    EXPECT_TRUE(userToken().items().empty());
}

TEST_F(StoreFile, ConfigurationDataIsReplacedAndRemoved) {
    const auto token = userToken();
    token.replaceConfigurationData(Bytes{1, 2, 3});
    EXPECT_EQ(userToken().configurationData(), (Bytes{1, 2, 3}));
    token.replaceConfigurationData(Bytes{});
    EXPECT_EQ(userToken().configurationData(), Bytes{});
    token.removeConfigurationData();
    EXPECT_FALSE(userToken().configurationData());
}

TEST_F(StoreFile, ConfigurationDataIsPatchedInPlaceOrNotAtAll) {
    const auto token = userToken();
    EXPECT_THROW(token.patchConfigurationData({{BytePatch{0, {1}}}}), PlatformError);
    token.replaceConfigurationData(Bytes{1, 2, 3, 4, 5});
    token.patchConfigurationData({{BytePatch{0, {9}}, BytePatch{3, {8, 7}}}});
    EXPECT_EQ(userToken().configurationData(), (Bytes{9, 2, 3, 8, 7}));
    // A patch past the end fails the whole change, the patches before it included.
    EXPECT_THROW(token.patchConfigurationData({{BytePatch{1, {0}}, BytePatch{4, {6, 6}}}}),
                 PlatformError);
    EXPECT_EQ(userToken().configurationData(), (Bytes{9, 2, 3, 8, 7}));
}

TEST_F(StoreFile, OtherTokensAreLeftAlone) {
    userToken();
    sql("INSERT INTO drivers VALUES ('org.example.other')");
    sql("INSERT INTO tokens VALUES ('org.example.other', 'user', x'AA')");
    sql("INSERT INTO tokens VALUES ('org.keyloft.token', 'spare', x'BB')");
    userToken().replaceConfigurationData(Bytes{0xCC});
    userToken().replaceItems({});

    const auto drivers = TokenStore::open(dbPath(), driver).driverConfigurations();
    EXPECT_EQ(drivers.at("org.example.other").tokenConfigurations().at("user").configurationData(),
              Bytes{0xAA});
    EXPECT_EQ(drivers.at("org.keyloft.token").tokenConfigurations().at("spare").configurationData(),
              Bytes{0xBB});
}

TEST_F(StoreFile, AppendingAfterTheLastPossiblePositionFailsWithoutOverflow) {
    constexpr auto last = std::numeric_limits<std::int64_t>::max();
    const CertificateItem item{Bytes{1}, std::nullopt, Bytes{0x30, 0x00}};
    struct Case {
        std::int64_t stored;  // the position of the one item written by hand
        std::size_t added;
        bool fits;
    };
    for (const auto& [stored, added, fits] :
         {Case{last, 1, false}, Case{last - 1, 2, false}, Case{last - 2, 2, true}}) {
        SCOPED_TRACE(stored);
        userToken().replaceItems({});
        sql("INSERT INTO items VALUES ('org.keyloft.token', 'user', " + std::to_string(stored) +
            ", 'certificate', x'01', NULL, x'3000', NULL, NULL, NULL)");
        const TokenItems items(added, item);
        if (fits) {
            userToken().appendItems(items);
            EXPECT_EQ(userToken().items().size(), added + 1);
        } else {
            EXPECT_THROW(userToken().appendItems(items), PlatformError);
            EXPECT_EQ(userToken().items().size(), 1U);
        }
    }
}

TEST_F(StoreFile, AnUnreadableFileIsAPlatformError) {
    std::filesystem::create_directories(dbPath());
    EXPECT_THROW(TokenStore::open(dbPath(), driver), PlatformError);
}

}  // namespace
}  // namespace keyloft::platform::token_store
