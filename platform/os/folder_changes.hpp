#pragma once

#include <filesystem>

#include "platform/os/file_descriptor.hpp"

namespace keyloft::platform::os {

// Tells, for the price of one non-blocking read, whether any file in a folder may have been
// written, created, removed or renamed since the last ask. It never answers "no" wrongly: while
// the folder cannot be watched (missing, or the kernel refuses), every ask answers "yes". Not for
// use from several threads at once.
class FolderChanges {
  public:
    explicit FolderChanges(std::filesystem::path folder);

    // True on the first ask, and whenever something may have changed since the previous one.
    bool changedSinceLastAsk();

  private:
    bool watch();

    std::filesystem::path folder_;
    FileDescriptor notifications_;
    int watch_ = -1;
};

}  // namespace keyloft::platform::os
