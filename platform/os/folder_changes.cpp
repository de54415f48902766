#include "platform/os/folder_changes.hpp"

#include <sys/inotify.h>

#include <array>

namespace keyloft::platform::os {
namespace {

constexpr std::uint32_t changes = IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

FolderChanges::FolderChanges(std::filesystem::path folder, std::chrono::milliseconds settling)
    : folder_(std::move(folder)),
      settling_(settling),
      notifications_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

bool FolderChanges::watch() {
    if (!notifications_.isOpen()) return false;
    if (watch_ >= 0) return true;
    watch_ = ::inotify_add_watch(notifications_.get(), folder_.c_str(), changes);
    return watch_ >= 0;
}

bool FolderChanges::changedSinceLastAsk() {
    // A watch made now sees only what comes after it: what came before counts as a change.
    if (watch_ < 0) {
        watch();
        return true;
    }
    bool changed = false;
    alignas(inotify_event) std::array<char, 4096> events{};
    for (;;) {
        const ssize_t got = ::read(notifications_.get(), events.data(), events.size());
        if (got <= 0) break;
        changed = true;
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events.data() + at);
            // The folder itself went away: watch it again once it is back.
            if ((event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) watch_ = -1;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    const auto now = std::chrono::steady_clock::now();
    if (changed) lastEvent_ = now;
    return changed || now - lastEvent_ < settling_;
}

}  // namespace keyloft::platform::os
