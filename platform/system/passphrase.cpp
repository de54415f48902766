#include "platform/system/passphrase.hpp"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <array>

namespace keyloft::platform {
namespace {

constexpr std::size_t bufferSize = 512;

// Replaces every byte that does not start a valid UTF-8 sequence with U+FFFD.
SecretText validUtf8(const std::uint8_t* bytes, std::size_t size) {
    SecretText out;
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

}  // namespace

std::optional<SecretText> readPassphrase(std::string_view prompt) {
    const int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    termios saved{};
    if (::tcgetattr(fd, &saved) != 0) {
        ::close(fd);
        return std::nullopt;
    }
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    // Echo goes off before the prompt shows, so nothing typed after the prompt is echoed or lost.
    ::tcsetattr(fd, TCSAFLUSH, &quiet);
    (void)::write(fd, prompt.data(), prompt.size());

    std::array<std::uint8_t, bufferSize> buffer{};
    std::size_t length = 0;
    bool ended = false;
    std::uint8_t c = 0;
    while (::read(fd, &c, 1) == 1) {
        if (c == '\n' || c == '\r') {
            ended = true;
            break;
        }
        if (length < bufferSize - 1) buffer[length++] = c;
    }
    ::tcsetattr(fd, TCSAFLUSH, &saved);
    ::close(fd);
    std::optional<SecretText> result;
    if (ended || length > 0) result = validUtf8(buffer.data(), length);
    wipe(buffer.data(), buffer.size());
    return result;
}

}  // namespace keyloft::platform
