#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"
#include "platform/token_store/token_items.hpp"

namespace keyloft::platform::token_store {

namespace sqlite {
class Connection;
}

// One token: its ordered item list and its optional configuration data, each read and replaced
// as a whole, each replacement one transaction.
class TesseraTokenConfiguration {
  public:
    const std::string& instanceID() const { return instance_; }

    TesseraTokenItems items() const;
    void replaceItems(const TesseraTokenItems& items) const;

    std::optional<Bytes> configurationData() const;
    void replaceConfigurationData(ByteView data) const;
    void removeConfigurationData() const;

  private:
    friend class TesseraTokenDriverConfiguration;
    friend class TesseraTokenWatcher;
    TesseraTokenConfiguration(std::shared_ptr<const sqlite::Connection> db, std::string driver,
                              std::string instance)
        : db_(std::move(db)), driver_(std::move(driver)), instance_(std::move(instance)) {}

    std::shared_ptr<const sqlite::Connection> db_;
    std::string driver_;
    std::string instance_;
};

class TesseraTokenDriverConfiguration {
  public:
    const std::string& classID() const { return driver_; }

    std::map<std::string, TesseraTokenConfiguration> tokenConfigurations() const;
    TesseraTokenConfiguration addTokenConfiguration(std::string_view instanceID) const;

  private:
    friend class TesseraDriverRegistry;
    TesseraTokenDriverConfiguration(std::shared_ptr<const sqlite::Connection> db,
                                    std::string driver)
        : db_(std::move(db)), driver_(std::move(driver)) {}

    std::shared_ptr<const sqlite::Connection> db_;
    std::string driver_;
};

// The driver configurations of the current user, persisted in tokens.db.
class TesseraDriverRegistry {
  public:
    // A store at the given path; created with its schema and the driver that ships with it when
    // missing.
    static TesseraDriverRegistry open(const std::filesystem::path& path,
                                      std::string_view shippedDriver);

    std::map<std::string, TesseraTokenDriverConfiguration> driverConfigurations() const;

  private:
    explicit TesseraDriverRegistry(std::shared_ptr<const sqlite::Connection> db)
        : db_(std::move(db)) {}
    std::shared_ptr<const sqlite::Connection> db_;
};

}  // namespace keyloft::platform::token_store
