#include "platform/key_processor/pam_presence_gate.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/error.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr const char* serviceName = "keyloft";

[[noreturn]] void refuse(const std::string& why) {
    throw PlatformError("User presence could not be confirmed: " + why);
}

class Terminal {
  public:
    Terminal() : fd_(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {}
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    ~Terminal() {
        if (fd_ >= 0) ::close(fd_);
    }
    bool isOpen() const { return fd_ >= 0; }

    void write(std::string_view text) const {
        while (!text.empty()) {
            const ssize_t n = ::write(fd_, text.data(), text.size());
            if (n <= 0) return;
            text.remove_prefix(static_cast<std::size_t>(n));
        }
    }

    // Shows the prompt and reads one line; nothing on failure. Without echo, echo goes off before
    // the prompt is shown (typed-ahead input is dropped) and comes back whatever happens.
    std::optional<crypto::SecretText> ask(std::string_view prompt, bool echo) const {
        termios saved{};
        const bool quiet = !echo && ::tcgetattr(fd_, &saved) == 0;
        if (quiet) {
            termios noEcho = saved;
            noEcho.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            ::tcsetattr(fd_, TCSAFLUSH, &noEcho);
        }
        write(prompt);
        crypto::SecretText line;
        char c = 0;
        bool ok = true;
        while ((ok = ::read(fd_, &c, 1) == 1) && c != '\n') line.push_back(c);
        if (quiet) {
            ::tcsetattr(fd_, TCSAFLUSH, &saved);
            write("\n");
        }
        if (!ok && line.empty()) return std::nullopt;
        return line;
    }

  private:
    int fd_;
};

// Answers may hold a password: wiped before they are freed.
void dropAnswers(pam_response* answers, int count) {
    for (int i = 0; i < count; ++i) {
        if (answers[i].resp != nullptr) crypto::wipe(answers[i].resp, std::strlen(answers[i].resp));
        std::free(answers[i].resp);
    }
    std::free(answers);
}

// PAM owns and frees the replies, so they are allocated with malloc.
int converse(int count, const pam_message** messages, pam_response** replies, void* data) {
    const auto& terminal = *static_cast<const Terminal*>(data);
    auto* answers = static_cast<pam_response*>(
        std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    if (answers == nullptr) return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i) {
        const pam_message& message = *messages[i];
        const std::string text = message.msg != nullptr ? message.msg : "";
        switch (message.msg_style) {
            case PAM_PROMPT_ECHO_OFF:
            case PAM_PROMPT_ECHO_ON: {
                auto line = terminal.ask(text, message.msg_style == PAM_PROMPT_ECHO_ON);
                if (line) line->push_back('\0');
                answers[i].resp = line ? strdup(line->data()) : nullptr;
                if (answers[i].resp == nullptr) {
                    dropAnswers(answers, i);
                    return PAM_CONV_ERR;
                }
                break;
            }
            default:
                terminal.write(text + "\n");
        }
    }
    *replies = answers;
    return PAM_SUCCESS;
}

std::string currentUser() {
    const passwd* entry = ::getpwuid(::getuid());
    if (entry == nullptr || entry->pw_name == nullptr) refuse("the current user is unknown");
    return entry->pw_name;
}

}  // namespace

void PamPresenceGate::confirm() {
    Terminal terminal;
    if (!terminal.isOpen()) refuse("no controlling terminal");
    terminal.write("Confirm your presence to use the key.\n");

    const pam_conv conversation{converse, &terminal};
    const std::string user = currentUser();
    pam_handle_t* handle = nullptr;
    const int started = configurationFolder_
                            ? pam_start_confdir(serviceName, user.c_str(), &conversation,
                                                configurationFolder_->c_str(), &handle)
                            : pam_start(serviceName, user.c_str(), &conversation, &handle);
    if (started != PAM_SUCCESS) refuse("PAM could not start");
    int result = pam_authenticate(handle, 0);
    if (result == PAM_SUCCESS) result = pam_acct_mgmt(handle, 0);
    const std::string reason = pam_strerror(handle, result);
    pam_end(handle, result);
    if (result != PAM_SUCCESS) refuse(reason);
}

}  // namespace keyloft::platform::key_processor
