#include "keys/stored_key_records.hpp"

namespace keyloft::keys {

std::string_view rawValue(BiometryProtection protection) {
    switch (protection) {
        case BiometryProtection::off:
            return "off";
        case BiometryProtection::on:
            return "on";
    }
    return "off";
}

std::optional<BiometryProtection> biometryProtectionFromRaw(std::string_view raw) {
    if (raw == "off") return BiometryProtection::off;
    if (raw == "on") return BiometryProtection::on;
    return std::nullopt;
}

}  // namespace keyloft::keys
