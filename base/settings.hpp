#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace keyloft {

// The settings that persist, from the administrator's file and the user's. Each has a tighter
// end, and the user's file may move a setting only towards it:
//   require_tpm = yes | no              yes is tighter: "-ne" keys only in a TPM, never in soft
//   presence_grace_seconds = 0..3600    smaller is tighter: how long one confirmation of presence
//                                       covers further uses of a key by the same program
struct Settings {
    bool requireTpm = false;
    std::chrono::seconds presenceGrace{10};

    bool operator==(const Settings&) const = default;
};

// One settings file's text applied over the settings so far. Lines are `key = value`, blank, or
// comments starting with '#'. Throws SettingsError naming the line for a malformed line, an
// unknown key or a value out of range; `tightenOnly` ignores a value looser than the current one.
struct SettingsError {
    std::size_t line;
    std::string reason;
};
Settings applySettings(Settings current, std::string_view text, bool tightenOnly);

}  // namespace keyloft
