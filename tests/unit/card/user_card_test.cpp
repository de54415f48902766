#include "card/user_card.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "base/error.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::card {
namespace {

class UserCard : public ::testing::Test {
  protected:
    platform::token_store::TokenStore registry() const {
        return platform::token_store::TokenStore::open(folder.path() / "tokens.db", driverClassID);
    }
    void sql(const char* statement) const {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open((folder.path() / "tokens.db").c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, statement, nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }
    std::string buildError() const {
        try {
            userToken(registry());
        } catch (const KeyloftError& error) {
            return error.text();
        }
        return "no error";
    }

    testing::TemporaryFolder folder;
};

TEST_F(UserCard, AddsTheUserTokenOnFirstUse) {
    const auto token = userToken(registry());
    EXPECT_EQ(token.instanceID(), "user");
    const auto tokens =
        registry().driverConfigurations().at("org.keyloft.token").tokenConfigurations();
    EXPECT_EQ(tokens.size(), 1U);
    EXPECT_TRUE(tokens.contains("user"));
}

TEST_F(UserCard, FindsTheExistingUserTokenBesideOthers) {
    registry();
    sql("INSERT INTO tokens VALUES ('org.keyloft.token', 'other', x'01')");
    sql("INSERT INTO tokens VALUES ('org.keyloft.token', 'user', x'02')");
    const auto token = userToken(registry());
    EXPECT_EQ(token.configurationData(), Bytes{0x02});
}

TEST_F(UserCard, AddsUserWhenOnlyOtherInstancesExist) {
    registry();
    sql("INSERT INTO tokens VALUES ('org.keyloft.token', 'other', x'01')");
    const auto token = userToken(registry());
    EXPECT_FALSE(token.configurationData());
    const auto tokens =
        registry().driverConfigurations().at("org.keyloft.token").tokenConfigurations();
    EXPECT_EQ(tokens.at("other").configurationData(), Bytes{0x01});
}

TEST_F(UserCard, FailsWithoutTheToolsDriver) {
    registry();
    sql("DELETE FROM drivers");
    EXPECT_EQ(buildError(), "Failed to get TesseraTokenDriver configuration");
    sql("INSERT INTO drivers VALUES ('org.example.other')");
    EXPECT_EQ(buildError(), "Failed to get TesseraTokenDriver configuration");
}

}  // namespace
}  // namespace keyloft::card
