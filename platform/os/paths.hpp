#pragma once

#include <filesystem>

namespace keyloft::platform::os {

// $XDG_DATA_HOME/keyloft, or $HOME/.local/share/keyloft; created with mode 0700 when missing.
std::filesystem::path dataFolder();
// The same folder's location, neither created nor checked (for readers that must not create it).
std::filesystem::path dataFolderLocation();

}  // namespace keyloft::platform::os
