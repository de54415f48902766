#include "platform/os/passphrase.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "platform/os/controlling_terminal.hpp"

namespace keyloft::platform::os {
namespace {

constexpr std::size_t bufferSize = 512;

// Signals that would end or stop the process while echo is off. They are held back until the
// terminal mode is restored, then delivered again.
constexpr std::array heldSignals{SIGALRM, SIGHUP,  SIGINT,  SIGPIPE, SIGQUIT,
                                 SIGTERM, SIGTSTP, SIGTTIN, SIGTTOU};

volatile std::sig_atomic_t caughtSignal = 0;

extern "C" void noteSignal(int signal) {
    caughtSignal = signal;
}

bool isStop(int signal) {
    return signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
}

class SignalHold {
  public:
    SignalHold() {
        caughtSignal = 0;
        struct sigaction action {};
        action.sa_handler = noteSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;  // no SA_RESTART: a signal interrupts the read
        for (std::size_t i = 0; i < heldSignals.size(); ++i)
            ::sigaction(heldSignals[i], &action, &saved_[i]);
    }
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;
    ~SignalHold() {
        for (std::size_t i = 0; i < heldSignals.size(); ++i)
            ::sigaction(heldSignals[i], &saved_[i], nullptr);
    }

  private:
    std::array<struct sigaction, heldSignals.size()> saved_{};
};

// Replaces every byte that does not start a valid UTF-8 sequence with U+FFFD.
crypto::SecretText validUtf8(const std::uint8_t* bytes, std::size_t size) {
    crypto::SecretText out;
    for (std::size_t i = 0; i < size;) {
        const std::uint8_t c = bytes[i];
        std::size_t length = c < 0x80              ? 1
                             : (c & 0xE0U) == 0xC0 ? 2
                             : (c & 0xF0U) == 0xE0 ? 3
                             : (c & 0xF8U) == 0xF0 ? 4
                                                   : 0;
        bool valid = length != 0 && i + length <= size && !(length == 2 && c < 0xC2);
        for (std::size_t j = 1; valid && j < length; ++j) valid = (bytes[i + j] & 0xC0U) == 0x80;
        if (valid && length == 3) {
            const unsigned codePoint = ((c & 0x0FU) << 12U) | ((bytes[i + 1] & 0x3FU) << 6U);
            valid = codePoint >= 0x800 && (codePoint < 0xD800 || codePoint > 0xDFFF);
        }
        if (valid && length == 4) {
            const unsigned codePoint = ((c & 0x07U) << 18U) | ((bytes[i + 1] & 0x3FU) << 12U);
            valid = codePoint >= 0x10000 && codePoint <= 0x10FFFF;
        }
        if (!valid) {
            for (const char replacement : {'\xEF', '\xBF', '\xBD'}) out.push_back(replacement);
            ++i;
            continue;
        }
        out.insert(out.end(), bytes + i, bytes + i + length);
        i += length;
    }
    return out;
}

// One line, at most 511 bytes of it kept. End of input ends the line, but with nothing typed it
// is no answer (the terminal went away); a read error or a caught signal is no answer either.
std::optional<crypto::SecretText> readLine(int fd) {
    std::array<std::uint8_t, bufferSize> buffer{};
    std::size_t length = 0;
    std::uint8_t c = 0;
    bool answered = true;
    for (;;) {
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR && caughtSignal == 0) continue;
        if (n < 0 || caughtSignal != 0) {
            answered = false;
            break;
        }
        if (n == 0) {
            answered = length > 0;
            break;
        }
        if (c == '\n' || c == '\r') break;
        if (length < bufferSize - 1) buffer[length++] = c;
    }
    std::optional<crypto::SecretText> result;
    if (answered) result = validUtf8(buffer.data(), length);
    crypto::wipe(buffer.data(), buffer.size());
    crypto::wipe(&c, 1);
    return result;
}

}  // namespace

std::optional<crypto::SecretText> readPassphrase(std::string_view prompt) {
    for (;;) {
        std::optional<crypto::SecretText> answer;
        {
            const SignalHold hold;
            ControllingTerminal terminal;
            if (!terminal.echoOff()) return std::nullopt;
            terminal.write(prompt);
            answer = readLine(terminal.fd());
        }
        const int signal = caughtSignal;
        if (signal == 0) return answer;
        ::raise(signal);
        // Stopped and continued (job control): ask again, as the terminal may have been used.
        if (!isStop(signal)) return std::nullopt;
    }
}

}  // namespace keyloft::platform::os
