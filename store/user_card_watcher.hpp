#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/os/folder_changes.hpp"
#include "platform/token_store/token_watcher.hpp"

namespace keyloft::store {

// Follows the user's card for a reader beside the tool; creates nothing. A card whose data folder
// is refused (another user's, or open to other users) reads as empty, and why is logged once.
// Not for use from several threads at once.
class UserCardWatcher {
  public:
    UserCardWatcher();

    // The card's state when it may have changed since the last call (the first call always
    // reads); nothing when it did not. Throws PlatformError when the store cannot be read.
    std::optional<platform::token_store::TesseraTokenSnapshot> changes();

  private:
    std::filesystem::path folder_;
    platform::os::FolderChanges folderChanges_;
    // None while the folder is refused, so that the store is read whole once it is accepted.
    std::unique_ptr<platform::token_store::TesseraTokenWatcher> token_;
    std::string refusal_;  // the last refusal logged
};

}  // namespace keyloft::store
