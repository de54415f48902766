#pragma once

#include <filesystem>
#include <string_view>

namespace keyloft::platform::os {

// The files of the data folder: the token store and the soft key processor's device key.
inline constexpr std::string_view storeFileName = "tokens.db";
inline constexpr std::string_view deviceKeyFileName = "bastion.key";

// $XDG_DATA_HOME/keyloft, or $HOME/.local/share/keyloft; created with mode 0700 when missing.
// Throws PlatformError when checkDataFolder refuses it.
std::filesystem::path dataFolder();
// The same folder's location, neither created nor checked (for readers that must not create it).
std::filesystem::path dataFolderLocation();

// Throws PlatformError, one line, when the folder (links followed) or its store belongs to
// another user or other users may write it, or when they may read or write its device key. Only
// the folder itself and its files are looked at: the folders above it are the system's or the
// user's to keep. A missing folder or file passes.
void checkDataFolder(const std::filesystem::path& folder);

}  // namespace keyloft::platform::os
