#pragma once

#include <filesystem>
#include <string>

#include "base/bytes.hpp"

namespace keyloft::platform::os {

// Whole-file reading and writing; failures are PlatformError naming the file and the reason.
Bytes readFile(const std::filesystem::path& path);

// Text files must be valid UTF-8 (ASCII included); anything else is a read failure.
std::string readTextFile(const std::filesystem::path& path);

// Who may read a file the tool writes.
enum class FileAccess {
    ownerOnly,  // mode 0600, whatever the umask
    usual,      // mode 0666 less the umask, as a new file of the user's
};

// Writes a new file in the target's folder and puts it in the target's place: a link at the
// target's name is replaced, never followed, and an existing file's mode is not kept. Readers see
// the old file or the whole new one. A crash leaves nothing behind, unless the filesystem cannot
// hold an unnamed file, where a temporary named after the target may stay.
void replaceFileAtomically(const std::filesystem::path& path, ByteView content, FileAccess access);

}  // namespace keyloft::platform::os
