#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.hpp"
#include "platform/token_store/token_items.hpp"

namespace keyloft::platform::token_store {

namespace sqlite {
class Connection;
class Statement;
}  // namespace sqlite

// One token's item list and configuration data, read in one transaction so that they agree. What
// did not change since the watcher's previous snapshot is the very object that one held, so that
// readers can tell what changed by comparing pointers.
struct TokenSnapshot {
    std::vector<SharedTokenItem> items;
    std::shared_ptr<const Bytes> configurationData;  // null when the token has none
};

// Follows one token of a store for a reader running beside the tool: it never creates the store,
// and reads again only after a writer has committed, or when the file at the store's path is
// another (restored from a copy, say) or has gone.
class TokenWatcher {
  public:
    TokenWatcher(std::filesystem::path storePath, std::string driver, std::string instance);
    ~TokenWatcher();
    TokenWatcher(const TokenWatcher&) = delete;
    TokenWatcher& operator=(const TokenWatcher&) = delete;

    // The token's state when it may have changed since the last call (the first call always
    // reads); nothing when no writer has committed since. A missing store or token reads as
    // empty. Throws PlatformError when the store cannot be read. Callers ask when the store's
    // folder changed: the file's identity is looked at on every call.
    std::optional<TokenSnapshot> changes();

  private:
    // An item of the previous snapshot and the row it was read from.
    struct KnownRow {
        std::int64_t rowid;
        SharedTokenItem item;
    };

    TokenSnapshot read();
    // The previous snapshot's item when the current row still holds it; the hint is where the
    // next row's is looked for first.
    SharedTokenItem knownItem(const sqlite::Statement& row, std::int64_t rowid,
                              std::size_t& hint) const;
    std::shared_ptr<const Bytes> configurationData() const;

    std::filesystem::path storePath_;
    std::string driver_;
    std::string instance_;
    // The file the connection reads, as the path named it just before it was opened.
    struct FileIdentity {
        std::uint64_t device;
        std::uint64_t inode;
        bool operator==(const FileIdentity&) const = default;
    };
    static std::optional<FileIdentity> identityOf(const std::filesystem::path& path);

    std::unique_ptr<sqlite::Connection> db_;
    FileIdentity openedFile_{};
    std::optional<std::int64_t> seenVersion_;
    bool readOnce_ = false;
    std::vector<KnownRow> known_;  // sorted by rowid
    std::shared_ptr<const Bytes> knownConfigurationData_;
};

}  // namespace keyloft::platform::token_store
