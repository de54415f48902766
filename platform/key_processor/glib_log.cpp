#include "platform/key_processor/glib_log.hpp"

#include <dlfcn.h>

#include <optional>
#include <string>

#include "platform/os/log.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr const char* glibLibrary = "libglib-2.0.so.0";

// GLib's GLogLevelFlags.
constexpr int flagRecursion = 1 << 0;
constexpr int flagFatal = 1 << 1;
constexpr int levelError = 1 << 2;
constexpr int levelCritical = 1 << 3;
constexpr int levelWarning = 1 << 4;
constexpr int levelMessage = 1 << 5;
// The levels GLib prints whatever G_MESSAGES_DEBUG says, fatal or not; debug and info, printed
// only on request, stay GLib's.
constexpr int printedLevels =
    levelError | levelCritical | levelWarning | levelMessage | flagFatal | flagRecursion;

void toSystemLog(const char* /*domain*/, int /*level*/, const char* message, void* /*data*/) {
    os::logError(std::string("TPM software stack: ") + (message != nullptr ? message : ""));
}

}  // namespace

const GlibLog* GlibLog::load() {
    static const std::optional<GlibLog> glib = []() -> std::optional<GlibLog> {
        // Never closed: GLib does not support being unloaded.
        void* library = dlopen(glibLibrary, RTLD_LAZY | RTLD_LOCAL);
        if (library == nullptr) return std::nullopt;
        const auto set = reinterpret_cast<SetHandler>(dlsym(library, "g_log_set_handler"));
        const auto remove = reinterpret_cast<RemoveHandler>(dlsym(library, "g_log_remove_handler"));
        if (set == nullptr || remove == nullptr) return std::nullopt;
        return GlibLog(set, remove);
    }();
    return glib ? &*glib : nullptr;
}

GlibLog::ToSystemLog::ToSystemLog(const GlibLog* glib) : glib_(glib) {
    if (glib_ != nullptr) handler_ = glib_->set_(nullptr, printedLevels, toSystemLog, nullptr);
}

GlibLog::ToSystemLog::~ToSystemLog() {
    if (handler_ != 0) glib_->remove_(nullptr, handler_);
}

}  // namespace keyloft::platform::key_processor
