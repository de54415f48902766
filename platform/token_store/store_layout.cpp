#include "platform/token_store/store_layout.hpp"

#include <functional>
#include <string>

#include "base/error.hpp"
#include "platform/token_store/sqlite_connection.hpp"

namespace keyloft::platform::token_store {
namespace {

std::int64_t layoutOf(const sqlite::Connection& db) {
    auto query = db.prepare("PRAGMA user_version");
    query.step();
    return query.integer(0);
}

void refuseNewer(std::int64_t layout) {
    if (layout <= currentStoreLayout) return;
    throw PlatformError("The card was written by a newer version of keyloft (store layout " +
                        std::to_string(layout) + "; this version reads up to " +
                        std::to_string(currentStoreLayout) + "): update keyloft to use it");
}

// The step from each layout to the next, in order: steps[n] upgrades layout n.
const std::function<void(const sqlite::Connection&)> steps[] = {
    // 0: the tables of layout 1, without a recorded layout.
    [](const sqlite::Connection&) {},
};
static_assert(std::size(steps) == currentStoreLayout);

}  // namespace

void markCurrentLayout(const sqlite::Connection& db) {
    db.execute("PRAGMA user_version = " + std::to_string(currentStoreLayout));
}

void upgradeLayout(const sqlite::Connection& db) {
    const std::int64_t found = layoutOf(db);
    refuseNewer(found);
    if (found == currentStoreLayout) return;
    // All steps or none: a failed upgrade leaves the store in its old layout.
    db.transaction([&] {
        // Another command may have upgraded the store meanwhile.
        std::int64_t layout = layoutOf(db);
        refuseNewer(layout);
        for (; layout < currentStoreLayout; ++layout) steps[layout](db);
        markCurrentLayout(db);
    });
}

void checkLayoutReadable(const sqlite::Connection& db) {
    refuseNewer(layoutOf(db));
}

}  // namespace keyloft::platform::token_store
