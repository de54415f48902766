#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.hpp"
#include "platform/token_store/token_items.hpp"

namespace keyloft::platform::token_store {

namespace sqlite {
class Connection;
}

// One token: its ordered item list and its optional configuration data. Each change below is
// whole or not at all; a command that reads, changes and writes holds the token for all of it
// with writeCommittingEvenOnThrow, so that commands running at once never overwrite each other.
class Token {
  public:
    const std::string& instanceID() const { return instance_; }

    // Runs the work holding the store for writing: other writers wait, for a bounded time, and
    // then fail with "The card is busy..."; readers see the token as it was until the work ends.
    // Changes made before the work threw are kept; a crash keeps none.
    void writeCommittingEvenOnThrow(const std::function<void()>& work) const;
    // Runs the work on one committed state of the store, never waiting for a writer.
    void readTransaction(const std::function<void()>& work) const;

    TokenItems items() const;
    // Each writes only the rows it changes.
    void appendItems(const TokenItems& items) const;
    // Removes the items at the positions (0-based, in any order); the others keep their order.
    void removeItemsAt(std::vector<std::size_t> positions) const;
    // Gives the items at the positions the label.
    void relabelItemsAt(const std::vector<std::size_t>& positions, std::string_view label) const;
    void replaceItems(const TokenItems& items) const;

    std::optional<Bytes> configurationData() const;
    void replaceConfigurationData(ByteView data) const;
    // Writes the patches over the data in place, which keeps its length: only the pages they
    // touch are written. Throws PlatformError when the token has no data or a patch reaches past
    // its end.
    void patchConfigurationData(std::span<const BytePatch> patches) const;
    void removeConfigurationData() const;

  private:
    void insertItems(const TokenItems& items, std::int64_t position) const;

    friend class TokenDriver;
    Token(std::shared_ptr<const sqlite::Connection> db, std::string driver, std::string instance)
        : db_(std::move(db)), driver_(std::move(driver)), instance_(std::move(instance)) {}

    std::shared_ptr<const sqlite::Connection> db_;
    std::string driver_;
    std::string instance_;
};

class TokenDriver {
  public:
    const std::string& classID() const { return driver_; }

    std::map<std::string, Token> tokenConfigurations() const;
    Token addTokenConfiguration(std::string_view instanceID) const;

  private:
    friend class TokenStore;
    TokenDriver(std::shared_ptr<const sqlite::Connection> db, std::string driver)
        : db_(std::move(db)), driver_(std::move(driver)) {}

    std::shared_ptr<const sqlite::Connection> db_;
    std::string driver_;
};

// The driver configurations of the current user, persisted in tokens.db.
class TokenStore {
  public:
    // A store at the given path; created with its schema and the driver that ships with it when
    // missing.
    static TokenStore open(const std::filesystem::path& path, std::string_view shippedDriver);

    std::map<std::string, TokenDriver> driverConfigurations() const;

  private:
    explicit TokenStore(std::shared_ptr<const sqlite::Connection> db) : db_(std::move(db)) {}
    std::shared_ptr<const sqlite::Connection> db_;
};

}  // namespace keyloft::platform::token_store
