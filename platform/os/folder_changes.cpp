#include "platform/os/folder_changes.hpp"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace keyloft::platform::os {
namespace {

constexpr std::uint32_t folderEvents = IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                       IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
// Only what changes which folder a name leads to; the parent's other files are not followed.
constexpr std::uint32_t parentEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t gone = IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

FolderChanges::FolderChanges(std::filesystem::path folder, std::chrono::milliseconds settling)
    : folder_(std::move(folder)),
      name_(folder_.filename().string()),
      settling_(settling),
      notifications_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

bool FolderChanges::readEvents() {
    bool changed = false;
    alignas(inotify_event) std::array<char, 4096> events{};
    for (;;) {
        const ssize_t got = ::read(notifications_.get(), events.data(), events.size());
        if (got <= 0) break;
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events.data() + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (event->wd == folderWatch_) {
                changed = true;
                if ((event->mask & gone) != 0) folderStale_ = true;
            } else if (event->wd == parentWatch_) {
                if ((event->mask & gone) != 0) {
                    // A renamed parent is still watched where it went, not at its old path.
                    if ((event->mask & IN_IGNORED) == 0)
                        ::inotify_rm_watch(notifications_.get(), parentWatch_);
                    parentWatch_ = -1;
                } else if (event->len > 0 && std::string_view(event->name) == name_) {
                    changed = true;
                    folderStale_ = true;
                }
            } else if (event->wd == -1) {
                // The queue overflowed: anything may have been missed.
                changed = true;
                folderStale_ = true;
            }
            // Anything else comes from a watch given up, such as a folder renamed away.
        }
    }
    return changed;
}

bool FolderChanges::watchAgain() {
    if (!notifications_.isOpen()) return true;
    if (parentWatch_ < 0) {
        const auto parent = folder_.parent_path();
        parentWatch_ = ::inotify_add_watch(notifications_.get(), parent.c_str(), parentEvents);
        // Whatever happened at the folder's name before now went unseen.
        folderStale_ = true;
    }
    if (!folderStale_) return false;
    // The parent is watched first, so a folder that appears after this attempt shows there.
    const int watch = ::inotify_add_watch(notifications_.get(), folder_.c_str(), folderEvents);
    const int error = errno;
    // The same watch comes back while the name still leads to the same folder: nothing was
    // missed then.
    const bool same = watch >= 0 && watch == folderWatch_;
    if (!same && folderWatch_ >= 0) ::inotify_rm_watch(notifications_.get(), folderWatch_);
    folderWatch_ = watch;
    // A missing folder shows in the parent's events once it appears; any other failure, a link
    // to a missing folder among them, is tried again at every ask.
    struct stat link {};
    const bool missing = error == ENOENT && ::lstat(folder_.c_str(), &link) != 0;
    folderStale_ = watch < 0 && !(missing && parentWatch_ >= 0);
    return !same;
}

bool FolderChanges::changedSinceLastAsk() {
    const bool changed = notifications_.isOpen() && readEvents();
    // A watch made now may have missed a change, yet no write waits to settle.
    const bool rewatched = (parentWatch_ < 0 || folderStale_) && watchAgain();
    const auto now = std::chrono::steady_clock::now();
    if (changed) lastEvent_ = now;
    return changed || rewatched || now - lastEvent_ < settling_;
}

}  // namespace keyloft::platform::os
