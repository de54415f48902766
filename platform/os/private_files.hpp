#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string_view>

namespace keyloft::platform::os {

// How far from other users a file of the card must be kept.
enum class Privacy {
    ownerWrites,  // only its owner may change it: the data folder and the store
    ownerOnly,    // only its owner may read or change it: a secret such as the device key
};

// Throws PlatformError, one line naming the file and why, when the file is not the effective
// user's or its mode lets other users further than the privacy allows. A file planted by another
// user, or one that another user may rewrite, must never hold or guard the user's keys.
void checkPrivate(const struct stat& info, std::string_view what, const std::filesystem::path& path,
                  Privacy privacy);

// The same for the file a path names, links followed; a missing file passes.
void checkPrivate(std::string_view what, const std::filesystem::path& path, Privacy privacy);

}  // namespace keyloft::platform::os
