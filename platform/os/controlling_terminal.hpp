#pragma once

#include <termios.h>

#include <optional>
#include <string_view>

#include "platform/crypto/secret.hpp"
#include "platform/os/file_descriptor.hpp"

namespace keyloft::platform::os {

// The process's controlling terminal (/dev/tty), held for one exchange with the user. Echo that
// was turned off comes back when it is closed, whatever happened in between.
class ControllingTerminal {
  public:
    ControllingTerminal();
    ~ControllingTerminal();
    ControllingTerminal(const ControllingTerminal&) = delete;
    ControllingTerminal& operator=(const ControllingTerminal&) = delete;

    // False when the process has no controlling terminal.
    bool isOpen() const { return fd_.isOpen(); }
    int fd() const { return fd_.get(); }

    void write(std::string_view text) const;

    // Echo goes off before a prompt shows, so nothing typed after it is echoed; input typed ahead
    // is dropped. The newline that ends the answer is still echoed. False when it cannot.
    bool echoOff();
    void restoreEcho();

    // One line without its newline; nothing when the terminal gives no line at all.
    std::optional<crypto::SecretText> readLine() const;

  private:
    FileDescriptor fd_;
    termios saved_{};
    bool quiet_ = false;
};

}  // namespace keyloft::platform::os
