#pragma once

#include <filesystem>
#include <optional>

#include "platform/key_processor/key_processor.hpp"

namespace keyloft::platform::key_processor {

// Confirms presence through PAM service "keyloft" for the current user, talking on the controlling
// terminal. Fails closed: no terminal, a PAM error or a refusal all refuse the key's use.
// A configuration folder replaces the system's PAM configuration (test builds only).
class PamPresenceGate : public PresenceGate {
  public:
    explicit PamPresenceGate(
        std::optional<std::filesystem::path> configurationFolder = std::nullopt)
        : configurationFolder_(std::move(configurationFolder)) {}

    void confirm() override;

  private:
    std::optional<std::filesystem::path> configurationFolder_;
};

}  // namespace keyloft::platform::key_processor
