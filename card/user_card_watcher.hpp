#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/os/folder_changes.hpp"
#include "platform/token_store/token_watcher.hpp"

namespace keyloft::card {

// Follows the user's card for a reader beside the tool; creates nothing. A card whose data folder
// is refused (another user's, or open to other users) reads as empty, and why is logged once.
// Not for use from several threads at once.
class UserCardWatcher {
  public:
    UserCardWatcher();

    // The card's state when it may have changed since the last call (the first call always
    // reads); nothing when it did not. After a write of the caller's own, the store is asked
    // whatever the folder showed: a commit's last file event may come well before it is visible.
    // Throws PlatformError when the store cannot be read; that change is read at the next call.
    std::optional<platform::token_store::TokenSnapshot> changes(bool afterOwnWrite = false);

  private:
    std::filesystem::path folder_;
    platform::os::FolderChanges folderChanges_;
    // None while the folder is refused, so that the store is read whole once it is accepted.
    std::unique_ptr<platform::token_store::TokenWatcher> token_;
    std::string refusal_;  // the last refusal logged
    bool unread_ = false;  // a change was signalled whose reading failed
};

}  // namespace keyloft::card
