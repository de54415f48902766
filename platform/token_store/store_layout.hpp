#pragma once

#include <cstdint>

namespace keyloft::platform::token_store {

namespace sqlite {
class Connection;
}  // namespace sqlite

// The layout of the store's tables, kept in SQLite's user_version. docs/storage.md describes
// each layout and the step that upgrades it.
inline constexpr std::int64_t currentStoreLayout = 1;

// Records the current layout in a store whose tables were just made.
void markCurrentLayout(const sqlite::Connection& db);

// Upgrades a store written in an older layout, step by step in one write transaction, so that
// a failure leaves it as it was. Throws PlatformError, changing nothing, for a store of a newer
// layout than this version knows.
void upgradeLayout(const sqlite::Connection& db);

// For readers that never write: throws PlatformError for a store of a newer layout. Older
// layouts are read as they are (every layout so far reads as the current one).
void checkLayoutReadable(const sqlite::Connection& db);

}  // namespace keyloft::platform::token_store
