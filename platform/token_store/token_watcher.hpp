#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "base/bytes.hpp"
#include "platform/token_store/token_items.hpp"

namespace keyloft::platform::token_store {

namespace sqlite {
class Connection;
}

// One token's item list and configuration data, read in one transaction so that they agree.
struct TesseraTokenSnapshot {
    TesseraTokenItems items;
    std::optional<Bytes> configurationData;
};

// Follows one token of a store for a reader running beside the tool: it never creates the store,
// and reads again only after a writer has committed.
class TesseraTokenWatcher {
  public:
    TesseraTokenWatcher(std::filesystem::path storePath, std::string driver, std::string instance);
    ~TesseraTokenWatcher();
    TesseraTokenWatcher(const TesseraTokenWatcher&) = delete;
    TesseraTokenWatcher& operator=(const TesseraTokenWatcher&) = delete;

    // The token's state when it may have changed since the last call (the first call always
    // reads); nothing when no writer has committed since. A missing store or token reads as
    // empty. Throws PlatformError when the store cannot be read.
    std::optional<TesseraTokenSnapshot> changes();

  private:
    TesseraTokenSnapshot read() const;

    std::filesystem::path storePath_;
    std::string driver_;
    std::string instance_;
    std::unique_ptr<sqlite::Connection> db_;
    std::optional<std::int64_t> seenVersion_;
    bool readOnce_ = false;
};

}  // namespace keyloft::platform::token_store
