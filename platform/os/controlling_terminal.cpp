#include "platform/os/controlling_terminal.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace keyloft::platform::os {

ControllingTerminal::ControllingTerminal()
    : fd_(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {}

ControllingTerminal::~ControllingTerminal() {
    restoreEcho();
}

void ControllingTerminal::write(std::string_view text) const {
    while (!text.empty()) {
        const ssize_t n = ::write(fd_.get(), text.data(), text.size());
        if (n <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
}

bool ControllingTerminal::echoOff() {
    if (!fd_.isOpen() || ::tcgetattr(fd_.get(), &saved_) != 0) return false;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    quiet_ = ::tcsetattr(fd_.get(), TCSAFLUSH, &quiet) == 0;
    return quiet_;
}

void ControllingTerminal::restoreEcho() {
    if (quiet_) ::tcsetattr(fd_.get(), TCSAFLUSH, &saved_);
    quiet_ = false;
}

std::optional<crypto::SecretText> ControllingTerminal::readLine() const {
    crypto::SecretText line;
    char c = 0;
    bool read = true;
    while ((read = ::read(fd_.get(), &c, 1) == 1) && c != '\n') line.push_back(c);
    crypto::wipe(&c, 1);
    if (!read && line.empty()) return std::nullopt;
    return line;
}

}  // namespace keyloft::platform::os
