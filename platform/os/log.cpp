#include "platform/os/log.hpp"

#include <syslog.h>

#include <mutex>
#include <string>

namespace keyloft::platform::os {
namespace {

// Opened once, on first use; LOG_PERROR is never set, so nothing reaches the terminal.
void write(int priority, std::string_view message) {
    static std::once_flag opened;
    std::call_once(opened, [] { openlog("keyloft", LOG_PID, LOG_USER); });
    const std::string text(message);
    syslog(priority, "[Keyloft] %s", text.c_str());
}

}  // namespace

void logError(std::string_view message) {
    write(LOG_ERR, message);
}
void logDebug(std::string_view message) {
    write(LOG_DEBUG, message);
}

}  // namespace keyloft::platform::os
