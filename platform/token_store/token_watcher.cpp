#include "platform/token_store/token_watcher.hpp"

#include "platform/token_store/sqlite_connection.hpp"
#include "platform/token_store/token_store.hpp"

namespace keyloft::platform::token_store {
namespace {

// Non-owning: the configuration object only borrows the watcher's connection while it reads.
std::shared_ptr<const sqlite::Connection> borrowed(const sqlite::Connection& db) {
    return {std::shared_ptr<const sqlite::Connection>(), &db};
}

bool hasSchema(const sqlite::Connection& db) {
    auto query =
        db.prepare("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='items'");
    return query.step() && query.integer(0) == 1;
}

}  // namespace

TesseraTokenWatcher::TesseraTokenWatcher(std::filesystem::path storePath, std::string driver,
                                         std::string instance)
    : storePath_(std::move(storePath)),
      driver_(std::move(driver)),
      instance_(std::move(instance)) {}

TesseraTokenWatcher::~TesseraTokenWatcher() = default;

std::optional<TesseraTokenSnapshot> TesseraTokenWatcher::changes() {
    if (!db_) {
        std::error_code error;
        if (!std::filesystem::exists(storePath_, error)) {
            if (readOnce_) return std::nullopt;
            readOnce_ = true;
            return TesseraTokenSnapshot{};
        }
        db_ = std::make_unique<sqlite::Connection>(storePath_);
    }
    const std::int64_t version = db_->dataVersion();
    if (seenVersion_ == version) return std::nullopt;
    auto snapshot = read();
    seenVersion_ = version;
    readOnce_ = true;
    return snapshot;
}

TesseraTokenSnapshot TesseraTokenWatcher::read() const {
    TesseraTokenSnapshot snapshot;
    db_->readTransaction([&] {
        if (!hasSchema(*db_)) return;
        const TesseraTokenConfiguration token(borrowed(*db_), driver_, instance_);
        snapshot.items = token.items();
        snapshot.configurationData = token.configurationData();
    });
    return snapshot;
}

}  // namespace keyloft::platform::token_store
