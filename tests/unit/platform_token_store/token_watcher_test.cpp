#include "platform/token_store/token_watcher.hpp"

#include <gtest/gtest.h>

#include "platform/token_store/token_store.hpp"
#include "support/temporary_folder.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::platform::token_store {
namespace {

constexpr std::string_view driver = "org.keyloft.token";

class TokenWatcher : public ::testing::Test {
  protected:
    std::filesystem::path dbPath() const { return folder.path() / "tokens.db"; }
    TesseraTokenConfiguration writer() const {
        const auto drivers = TesseraDriverRegistry::open(dbPath(), driver).driverConfigurations();
        return drivers.at(std::string(driver)).addTokenConfiguration("user");
    }
    TesseraTokenItems oneCertificate(std::uint8_t id) const {
        return {*makeCertificateItem(certificate, Bytes{id})};
    }

    testing::TemporaryFolder folder;
    TesseraTokenWatcher watcher{dbPath(), std::string(driver), "user"};
    Bytes certificate = testing::makeCertificate(testing::makeEcKey().get());
};

TEST_F(TokenWatcher, ReadsAMissingStoreAsEmptyOnceWithoutCreatingIt) {
    const auto first = watcher.changes();
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->items.empty());
    EXPECT_FALSE(first->configurationData);
    EXPECT_FALSE(watcher.changes());
    EXPECT_FALSE(std::filesystem::exists(dbPath()));
}

TEST_F(TokenWatcher, ReadsAgainOnlyAfterAWriterCommitted) {
    const auto token = writer();
    token.replaceItems(oneCertificate(1));
    token.replaceConfigurationData(Bytes{1, 2, 3});
    const auto first = watcher.changes();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->items, oneCertificate(1));
    EXPECT_EQ(first->configurationData, (Bytes{1, 2, 3}));
    EXPECT_FALSE(watcher.changes());

    token.replaceItems(oneCertificate(2));
    const auto second = watcher.changes();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->items, oneCertificate(2));
    EXPECT_FALSE(watcher.changes());
}

TEST_F(TokenWatcher, FindsAStoreMadeAfterItStarted) {
    ASSERT_TRUE(watcher.changes());
    writer().replaceItems(oneCertificate(3));
    const auto later = watcher.changes();
    ASSERT_TRUE(later);
    EXPECT_EQ(later->items, oneCertificate(3));
}

}  // namespace
}  // namespace keyloft::platform::token_store
