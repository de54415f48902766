#include "platform/os/settings_files.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "base/error.hpp"

namespace keyloft::platform::os {
namespace {

constexpr const char* administratorsFile = "/etc/keyloft/keyloft.conf";

std::filesystem::path userSettingsFile() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && *config == '/')
        return std::filesystem::path(config) / "keyloft/keyloft.conf";
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home != nullptr ? home : "") / ".config/keyloft/keyloft.conf";
}

Settings applyFile(Settings current, const std::filesystem::path& file, bool tightenOnly) {
    std::error_code error;
    if (!std::filesystem::exists(file, error)) return current;
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) throw PlatformError("The settings file " + file.string() + " cannot be read");
    try {
        return applySettings(current, text.str(), tightenOnly);
    } catch (const SettingsError& malformed) {
        throw PlatformError("The settings file " + file.string() + ", line " +
                            std::to_string(malformed.line) + ": " + malformed.reason);
    }
}

}  // namespace

Settings readSettings(const std::filesystem::path& administrators,
                      const std::filesystem::path& users) {
    return applyFile(applyFile(Settings{}, administrators, false), users, true);
}

Settings readAdministratorSettings() {
    return applyFile(Settings{}, administratorsFile, false);
}

Settings readSettings() {
    return readSettings(administratorsFile, userSettingsFile());
}

}  // namespace keyloft::platform::os
