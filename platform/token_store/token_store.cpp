#include "platform/token_store/token_store.hpp"

#include <algorithm>
#include <limits>

#include "base/error.hpp"
#include "platform/token_store/item_rows.hpp"
#include "platform/token_store/sqlite_connection.hpp"
#include "platform/token_store/store_layout.hpp"

namespace keyloft::platform::token_store {
namespace {

constexpr std::string_view schema = R"sql(
CREATE TABLE drivers (
  class_id TEXT PRIMARY KEY
);
CREATE TABLE tokens (
  driver      TEXT NOT NULL REFERENCES drivers(class_id),
  instance    TEXT NOT NULL,
  config_data BLOB,
  PRIMARY KEY (driver, instance)
);
CREATE TABLE items (
  driver           TEXT    NOT NULL,
  instance         TEXT    NOT NULL,
  position         INTEGER NOT NULL,
  kind             TEXT    NOT NULL CHECK (kind IN ('certificate', 'key')),
  object_id        BLOB    NOT NULL,
  label            TEXT,
  certificate      BLOB    NOT NULL,
  can_sign         INTEGER,
  can_decrypt      INTEGER,
  can_key_exchange INTEGER,
  PRIMARY KEY (driver, instance, position),
  FOREIGN KEY (driver, instance) REFERENCES tokens(driver, instance)
);
)sql";

// A store is created by the first process that finds it without tables; the driver ships with
// the tool, so it is registered in the same transaction.
// Readers of an existing store never take the write lock for this.
void createSchemaIfMissing(const sqlite::Connection& db, std::string_view shippedDriver) {
    const auto hasTables = [&] {
        auto count = db.prepare("SELECT count(*) FROM sqlite_master WHERE type='table'");
        count.step();
        return count.integer(0) != 0;
    };
    if (hasTables()) return;
    db.transaction([&] {
        if (hasTables()) return;
        db.execute(schema);
        markCurrentLayout(db);
        db.prepare("INSERT INTO drivers (class_id) VALUES (?)").bind(1, shippedDriver).run();
    });
}

}  // namespace

TokenItems Token::items() const {
    auto query = db_->prepare("SELECT " + std::string(itemColumns) +
                              " FROM items WHERE driver = ? AND instance = ? ORDER BY position");
    query.bind(1, std::string_view(driver_)).bind(2, std::string_view(instance_));
    TokenItems items;
    while (query.step()) items.push_back(itemOfRow(query));
    return items;
}

void Token::writeCommittingEvenOnThrow(const std::function<void()>& work) const {
    db_->writeCommittingEvenOnThrow(work);
}

void Token::readTransaction(const std::function<void()>& work) const {
    db_->readTransaction(work);
}

void Token::appendItems(const TokenItems& items) const {
    db_->transaction([&] {
        // Positions run from 0 without gaps; the largest is found in the index without counting.
        auto last =
            db_->prepare("SELECT max(position) FROM items WHERE driver = ? AND instance = ?");
        last.bind(1, std::string_view(driver_)).bind(2, std::string_view(instance_));
        last.step();
        if (last.isNull(0)) return insertItems(items, 0);
        // A position written by hand may leave no room after it.
        const auto lastFitting =
            std::numeric_limits<std::int64_t>::max() - static_cast<std::int64_t>(items.size());
        if (last.integer(0) > lastFitting)
            throw PlatformError("Token store: the items' positions are out of range");
        insertItems(items, last.integer(0) + 1);
    });
}

void Token::removeItemsAt(std::vector<std::size_t> positions) const {
    std::ranges::sort(positions);
    positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
    if (positions.empty()) return;
    db_->transaction([&] {
        auto remove =
            db_->prepare("DELETE FROM items WHERE driver = ? AND instance = ? AND position = ?");
        // The rows after each gap move down by the gaps before them. They pass through negative
        // positions, since the primary key is checked row by row as the update runs.
        auto park = db_->prepare(
            "UPDATE items SET position = -1 - (position - ?) WHERE driver = ? AND instance = ?"
            " AND position > ? AND position < ?");
        for (std::size_t i = 0; i < positions.size(); ++i) {
            const auto position = static_cast<std::int64_t>(positions[i]);
            remove.reset();
            remove.bind(1, std::string_view(driver_))
                .bind(2, std::string_view(instance_))
                .bind(3, position)
                .run();
            const auto next = i + 1 < positions.size() ? static_cast<std::int64_t>(positions[i + 1])
                                                       : std::numeric_limits<std::int64_t>::max();
            park.reset();
            park.bind(1, static_cast<std::int64_t>(i + 1))
                .bind(2, std::string_view(driver_))
                .bind(3, std::string_view(instance_))
                .bind(4, position)
                .bind(5, next)
                .run();
        }
        db_->prepare(
               "UPDATE items SET position = -1 - position WHERE driver = ? AND instance = ?"
               " AND position < 0")
            .bind(1, std::string_view(driver_))
            .bind(2, std::string_view(instance_))
            .run();
    });
}

void Token::relabelItemsAt(const std::vector<std::size_t>& positions,
                           std::string_view label) const {
    if (positions.empty()) return;
    db_->transaction([&] {
        auto relabel = db_->prepare(
            "UPDATE items SET label = ? WHERE driver = ? AND instance = ? AND position = ?");
        for (const std::size_t position : positions) {
            relabel.reset();
            relabel.bind(1, label)
                .bind(2, std::string_view(driver_))
                .bind(3, std::string_view(instance_))
                .bind(4, static_cast<std::int64_t>(position))
                .run();
        }
    });
}

void Token::replaceItems(const TokenItems& items) const {
    db_->transaction([&] {
        db_->prepare("DELETE FROM items WHERE driver = ? AND instance = ?")
            .bind(1, std::string_view(driver_))
            .bind(2, std::string_view(instance_))
            .run();
        insertItems(items, 0);
    });
}

void Token::insertItems(const TokenItems& items, std::int64_t position) const {
    auto insert = db_->prepare(
        "INSERT INTO items (driver, instance, position, kind, object_id, label, certificate,"
        " can_sign, can_decrypt, can_key_exchange) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    for (std::size_t i = 0; i < items.size(); ++i) {
        const auto& item = items[i];
        insert.reset();
        insert.bind(1, std::string_view(driver_))
            .bind(2, std::string_view(instance_))
            .bind(3, position + static_cast<std::int64_t>(i));
        std::visit(
            [&](const auto& value) {
                using Item = std::decay_t<decltype(value)>;
                insert.bind(5, ByteView(value.objectID)).bindOptional(6, value.label);
                insert.bind(7, ByteView(value.certificate));
                if constexpr (std::is_same_v<Item, KeyItem>) {
                    insert.bind(4, std::string_view("key"))
                        .bindOptional(8, value.canSign)
                        .bindOptional(9, value.canDecrypt)
                        .bindOptional(10, value.canPerformKeyExchange);
                } else {
                    insert.bind(4, std::string_view("certificate"))
                        .bindNull(8)
                        .bindNull(9)
                        .bindNull(10);
                }
            },
            item);
        insert.run();
    }
}

std::optional<Bytes> Token::configurationData() const {
    auto query = db_->prepare("SELECT config_data FROM tokens WHERE driver = ? AND instance = ?");
    query.bind(1, std::string_view(driver_)).bind(2, std::string_view(instance_));
    if (!query.step() || query.isNull(0)) return std::nullopt;
    return query.blob(0);
}

void Token::replaceConfigurationData(ByteView data) const {
    db_->transaction([&] {
        db_->prepare("UPDATE tokens SET config_data = ? WHERE driver = ? AND instance = ?")
            .bind(1, data)
            .bind(2, std::string_view(driver_))
            .bind(3, std::string_view(instance_))
            .run();
    });
}

void Token::patchConfigurationData(std::span<const BytePatch> patches) const {
    db_->transaction([&] {
        auto row = db_->prepare("SELECT rowid FROM tokens WHERE driver = ? AND instance = ?");
        row.bind(1, std::string_view(driver_)).bind(2, std::string_view(instance_));
        if (!row.step()) throw PlatformError("Token store: no token to change");
        auto blob = db_->openBlob("tokens", "config_data", row.integer(0));
        for (const auto& patch : patches) blob.write(patch.offset, patch.bytes);
    });
}

void Token::removeConfigurationData() const {
    db_->transaction([&] {
        db_->prepare("UPDATE tokens SET config_data = NULL WHERE driver = ? AND instance = ?")
            .bind(1, std::string_view(driver_))
            .bind(2, std::string_view(instance_))
            .run();
    });
}

std::map<std::string, Token> TokenDriver::tokenConfigurations() const {
    auto query = db_->prepare("SELECT instance FROM tokens WHERE driver = ?");
    query.bind(1, std::string_view(driver_));
    std::map<std::string, Token> tokens;
    while (query.step()) {
        auto instance = query.text(0);
        tokens.emplace(instance, Token(db_, driver_, instance));
    }
    return tokens;
}

Token TokenDriver::addTokenConfiguration(std::string_view instanceID) const {
    db_->transaction([&] {
        db_->prepare("INSERT OR IGNORE INTO tokens (driver, instance) VALUES (?, ?)")
            .bind(1, std::string_view(driver_))
            .bind(2, instanceID)
            .run();
    });
    return Token(db_, driver_, std::string(instanceID));
}

TokenStore TokenStore::open(const std::filesystem::path& path, std::string_view shippedDriver) {
    auto db = std::make_shared<const sqlite::Connection>(path);
    createSchemaIfMissing(*db, shippedDriver);
    upgradeLayout(*db);
    return TokenStore(std::move(db));
}

std::map<std::string, TokenDriver> TokenStore::driverConfigurations() const {
    std::map<std::string, TokenDriver> drivers;
    auto query = db_->prepare("SELECT class_id FROM drivers");
    while (query.step()) {
        auto classID = query.text(0);
        drivers.emplace(classID, TokenDriver(db_, classID));
    }
    return drivers;
}

}  // namespace keyloft::platform::token_store
