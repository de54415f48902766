#include "platform/token_store/token_watcher.hpp"

#include <sys/stat.h>

#include <algorithm>

#include "platform/token_store/item_rows.hpp"
#include "platform/token_store/sqlite_connection.hpp"
#include "platform/token_store/store_layout.hpp"

namespace keyloft::platform::token_store {
namespace {

// After the item columns.
constexpr int rowidColumn = itemColumnCount;

bool hasSchema(const sqlite::Connection& db) {
    auto query =
        db.prepare("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='items'");
    return query.step() && query.integer(0) == 1;
}

}  // namespace

TokenWatcher::TokenWatcher(std::filesystem::path storePath, std::string driver,
                           std::string instance)
    : storePath_(std::move(storePath)),
      driver_(std::move(driver)),
      instance_(std::move(instance)) {}

TokenWatcher::~TokenWatcher() = default;

std::optional<TokenSnapshot> TokenWatcher::changes() {
    const auto identity = identityOf(storePath_);
    if (!identity) {
        // Removed or renamed away: its identities go with it, and a connection kept to it would
        // go on reading the old file.
        const bool wasOpen = db_ != nullptr;
        db_.reset();
        if (readOnce_ && !wasOpen) return std::nullopt;
        readOnce_ = true;
        known_.clear();
        knownConfigurationData_.reset();
        return TokenSnapshot{};
    }
    if (!db_ || *identity != openedFile_) {
        // The identity is taken before opening: a file swapped in between shows as another at
        // the next call, and is opened then.
        db_ = std::make_unique<sqlite::Connection>(storePath_);
        openedFile_ = *identity;
        seenVersion_.reset();
    }
    const std::int64_t version = db_->dataVersion();
    if (seenVersion_ == version) return std::nullopt;
    auto snapshot = read();
    seenVersion_ = version;
    readOnce_ = true;
    return snapshot;
}

std::optional<TokenWatcher::FileIdentity> TokenWatcher::identityOf(
    const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return FileIdentity{static_cast<std::uint64_t>(info.st_dev),
                        static_cast<std::uint64_t>(info.st_ino)};
}

// A change touches a few rows of many: the rows that still hold what they held are handed out as
// the items read before, not copied again.
TokenSnapshot TokenWatcher::read() {
    TokenSnapshot snapshot;
    std::vector<KnownRow> rows;
    db_->readTransaction([&] {
        if (!hasSchema(*db_)) return;
        checkLayoutReadable(*db_);
        auto query = db_->prepare("SELECT " + std::string(itemColumns) +
                                  ", rowid FROM items WHERE driver = ? AND instance = ?"
                                  " ORDER BY position");
        query.bind(1, std::string_view(driver_)).bind(2, std::string_view(instance_));
        std::size_t hint = 0;
        while (query.step()) {
            const std::int64_t rowid = query.integer(rowidColumn);
            auto item = knownItem(query, rowid, hint);
            if (!item) item = std::make_shared<const TokenItem>(itemOfRow(query));
            rows.push_back({rowid, item});
            snapshot.items.push_back(std::move(item));
        }
        snapshot.configurationData = configurationData();
    });
    // Rows keep their rowid when a removal renumbers their positions.
    std::ranges::sort(rows, {}, &KnownRow::rowid);
    known_ = std::move(rows);
    knownConfigurationData_ = snapshot.configurationData;
    return snapshot;
}

SharedTokenItem TokenWatcher::knownItem(const sqlite::Statement& row, std::int64_t rowid,
                                        std::size_t& hint) const {
    // Rows usually come in the order of their rowids: the one after the last found is tried first.
    auto known = hint < known_.size() && known_[hint].rowid == rowid
                     ? known_.begin() + static_cast<std::ptrdiff_t>(hint)
                     : std::ranges::lower_bound(known_, rowid, {}, &KnownRow::rowid);
    // A rowid freed by a removal may be given to a new row: only the bytes tell.
    if (known == known_.end() || known->rowid != rowid || !rowHoldsItem(row, *known->item))
        return nullptr;
    hint = static_cast<std::size_t>(known - known_.begin()) + 1;
    return known->item;
}

std::shared_ptr<const Bytes> TokenWatcher::configurationData() const {
    auto query = db_->prepare("SELECT config_data FROM tokens WHERE driver = ? AND instance = ?");
    query.bind(1, std::string_view(driver_)).bind(2, std::string_view(instance_));
    if (!query.step() || query.isNull(0)) return nullptr;
    const ByteView data = query.blobView(0);
    if (knownConfigurationData_ && std::ranges::equal(data, *knownConfigurationData_))
        return knownConfigurationData_;
    return std::make_shared<const Bytes>(data.begin(), data.end());
}

}  // namespace keyloft::platform::token_store
