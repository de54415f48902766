#include "platform/os/private_files.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/error.hpp"

namespace keyloft::platform::os {
namespace {

[[noreturn]] void refuse(std::string_view what, const std::filesystem::path& path,
                         std::string_view reason) {
    throw PlatformError("The " + std::string(what) + " '" + path.string() + "' " +
                        std::string(reason) + "; refusing to use it");
}

}  // namespace

void checkPrivate(const struct stat& info, std::string_view what, const std::filesystem::path& path,
                  Privacy privacy) {
    // Ownership, not access(): root reads every file, yet must not trust another user's.
    if (info.st_uid != ::geteuid()) refuse(what, path, "belongs to another user");
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) refuse(what, path, "is writable by other users");
    if (privacy == Privacy::ownerOnly && (info.st_mode & (S_IRGRP | S_IROTH)) != 0)
        refuse(what, path, "is readable by other users");
}

void checkPrivate(std::string_view what, const std::filesystem::path& path, Privacy privacy) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) return;
        throw PlatformError("Cannot read the " + std::string(what) + " '" + path.string() +
                            "': " + std::strerror(errno));
    }
    checkPrivate(info, what, path, privacy);
}

}  // namespace keyloft::platform::os
