#include "card/user_card_watcher.hpp"

#include "base/error.hpp"
#include "card/user_card.hpp"
#include "platform/os/log.hpp"
#include "platform/os/paths.hpp"

namespace keyloft::card {
namespace {

std::unique_ptr<platform::token_store::TokenWatcher> watchToken(
    const std::filesystem::path& folder) {
    return std::make_unique<platform::token_store::TokenWatcher>(
        folder / platform::os::storeFileName, std::string(driverClassID),
        std::string(userInstanceID));
}

}  // namespace

UserCardWatcher::UserCardWatcher()
    : folder_(platform::os::dataFolderLocation()),
      folderChanges_(folder_),
      token_(watchToken(folder_)) {}

std::optional<platform::token_store::TokenSnapshot> UserCardWatcher::changes(bool afterOwnWrite) {
    // Every use of a handle asks whether the card changed. Asking the store costs more than a
    // signature's share allows, so it is asked only when something in the folder changed; a
    // change of the folder's or its files' owner or mode is one.
    const bool signalled = folderChanges_.changedSinceLastAsk();
    if (!signalled && !unread_ && !afterOwnWrite) return std::nullopt;
    try {
        platform::os::checkDataFolder(folder_);
    } catch (const PlatformError& error) {
        if (refusal_ != error.what()) {
            refusal_ = error.what();
            platform::os::logError("The card is not read: " + refusal_);
        }
        if (!token_) return std::nullopt;
        token_.reset();
        return platform::token_store::TokenSnapshot{};
    }
    refusal_.clear();
    if (!token_) token_ = watchToken(folder_);
    unread_ = true;
    auto changes = token_->changes();
    unread_ = false;
    return changes;
}

}  // namespace keyloft::card
