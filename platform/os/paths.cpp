#include "platform/os/paths.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/error.hpp"
#include "platform/os/private_files.hpp"

namespace keyloft::platform::os {
namespace {

std::filesystem::path dataHome() {
    const char* xdg = std::getenv("XDG_DATA_HOME");
    if (xdg != nullptr && *xdg != '\0') return xdg;
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
        throw PlatformError("Cannot find the data folder: neither XDG_DATA_HOME nor HOME is set");
    }
    return std::filesystem::path(home) / ".local" / "share";
}

}  // namespace

std::filesystem::path dataFolderLocation() {
    return dataHome() / "keyloft";
}

std::filesystem::path dataFolder() {
    const auto folder = dataFolderLocation();
    std::error_code error;
    std::filesystem::create_directories(folder.parent_path(), error);
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw PlatformError("Cannot create the data folder " + folder.string() + ": " +
                            std::strerror(errno));
    }
    struct stat info {};
    if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        throw PlatformError("The data folder " + folder.string() + " is not a folder");
    }
    checkDataFolder(folder);
    return folder;
}

void checkDataFolder(const std::filesystem::path& folder) {
    checkPrivate("data folder", folder, Privacy::ownerWrites);
    checkPrivate("token store", folder / storeFileName, Privacy::ownerWrites);
    checkPrivate("device key", folder / deviceKeyFileName, Privacy::ownerOnly);
}

}  // namespace keyloft::platform::os
