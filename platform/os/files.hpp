#pragma once

#include <filesystem>
#include <string>

#include "base/bytes.hpp"

namespace keyloft::platform::os {

// Whole-file reading and writing; failures are PlatformError naming the file and the reason.
Bytes readFile(const std::filesystem::path& path);

// Text files must be valid UTF-8 (ASCII included); anything else is a read failure.
std::string readTextFile(const std::filesystem::path& path);

// Plain write: truncates and replaces the file's content in place.
void writeFile(const std::filesystem::path& path, ByteView content);

// Writes a temporary file beside the target and renames it over the target.
void replaceFileAtomically(const std::filesystem::path& path, ByteView content);

}  // namespace keyloft::platform::os
