#pragma once

#include <filesystem>

#include "base/settings.hpp"

namespace keyloft::platform::os {

// The administrator's settings file, /etc/keyloft/keyloft.conf, then the user's,
// $XDG_CONFIG_HOME/keyloft/keyloft.conf (else ~/.config/keyloft/keyloft.conf), which may only
// tighten. A missing file changes nothing. Throws PlatformError, one line naming the file and
// line, for a file that cannot be read or holds a malformed line.
Settings readSettings();

// The administrator's file alone.
Settings readAdministratorSettings();

// The same from given files, in that order.
Settings readSettings(const std::filesystem::path& administrators,
                      const std::filesystem::path& users);

}  // namespace keyloft::platform::os
