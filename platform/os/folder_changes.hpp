#pragma once

#include <chrono>
#include <filesystem>

#include "platform/os/file_descriptor.hpp"

namespace keyloft::platform::os {

// Tells, for the price of one non-blocking read, whether any file in a folder may have been
// written, closed after writing, created, removed or renamed since the last ask. While the folder
// cannot be watched (missing, or the kernel refuses), every ask answers "yes". A write shows
// before what it writes may be visible (a database commits after writing its log), so every ask
// within the settling time after the last event answers "yes" too. Not for use from several
// threads at once.
class FolderChanges {
  public:
    explicit FolderChanges(std::filesystem::path folder,
                           std::chrono::milliseconds settling = std::chrono::milliseconds(100));

    // True on the first ask, and whenever something may have changed since the previous one.
    bool changedSinceLastAsk();

  private:
    bool watch();

    std::filesystem::path folder_;
    std::chrono::milliseconds settling_;
    FileDescriptor notifications_;
    int watch_ = -1;
    std::chrono::steady_clock::time_point lastEvent_;
};

}  // namespace keyloft::platform::os
