#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/key_processor/key_processor.hpp"

namespace keyloft::platform::key_processor {

// The polkit action asked for; its default (auth_self) makes the desktop's authentication agent
// ask the user for their own password or fingerprint.
inline constexpr const char* polkitUseKeyAction = "org.keyloft.use-key";

// Confirms presence through polkit on the system bus (DBUS_SYSTEM_BUS_ADDRESS when set), for this
// process as the subject, allowing user interaction. Fails closed: a bus or polkit that cannot be
// reached, an error, a refusal, a cancelled dialog or no agent to ask all refuse the key's use.
class PolkitPresenceGate : public PresenceGate {
  public:
    explicit PolkitPresenceGate(std::chrono::seconds answerTimeout = std::chrono::minutes(5))
        : answerTimeout_(answerTimeout) {}

    void confirm() override;
    // Nothing when polkit authorized the use, else why not.
    std::optional<std::string> ask() const;

  private:
    std::chrono::seconds answerTimeout_;
};

// Asks on the controlling terminal when the process has one, else through the desktop: a browser
// or any application started from the desktop has no terminal to ask on.
class TerminalOrDesktopPresenceGate : public PresenceGate {
  public:
    TerminalOrDesktopPresenceGate(PresenceGate& terminal, PolkitPresenceGate& desktop)
        : terminal_(terminal), desktop_(desktop) {}

    void confirm() override;

  private:
    PresenceGate& terminal_;
    PolkitPresenceGate& desktop_;
};

}  // namespace keyloft::platform::key_processor
