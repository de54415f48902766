#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "platform/os/file_descriptor.hpp"

namespace keyloft::platform::os {

// Tells, for the price of one non-blocking read, whether any file in a folder may have been
// written, closed after writing, created, removed, renamed or given another owner or mode since
// the last ask, or whether the folder itself was, or was removed, renamed or replaced. The folder
// is watched together with its parent, which tells when a folder appears at the name (created,
// renamed there, or a link to it) while it is missing or after it was replaced. While the folder
// can neither be watched nor awaited in its parent (missing, or the kernel refuses), every ask
// answers "yes". A
// write shows before what it writes may be visible (a database commits after writing its log), so
// every ask within the settling time after the last event answers "yes" too. Not for use from
// several threads at once.
class FolderChanges {
  public:
    explicit FolderChanges(std::filesystem::path folder,
                           std::chrono::milliseconds settling = std::chrono::milliseconds(100));

    // True on the first ask, and whenever something may have changed since the previous one.
    bool changedSinceLastAsk();

  private:
    // Takes the events in: true when one may concern the folder.
    bool readEvents();
    // Watches again what is not watched, or no longer what the names name: true when something
    // may have been missed meanwhile.
    bool watchAgain();

    std::filesystem::path folder_;
    std::string name_;  // the folder's name in its parent
    std::chrono::milliseconds settling_;
    FileDescriptor notifications_;
    int folderWatch_ = -1;
    int parentWatch_ = -1;
    // The folder's watch may not be on what its name names now (or there is none to be had yet).
    bool folderStale_ = true;
    std::chrono::steady_clock::time_point lastEvent_;
};

}  // namespace keyloft::platform::os
