#include "platform/key_processor/pam_presence_gate.hpp"

#include <pwd.h>
#include <security/pam_appl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/error.hpp"
#include "platform/os/controlling_terminal.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr const char* serviceName = "keyloft";

[[noreturn]] void refuse(const std::string& why) {
    throw PlatformError("User presence could not be confirmed: " + why, presenceNotConfirmedCode);
}

using os::ControllingTerminal;

// Shows the prompt and reads one line; without echo, echo is off from before the prompt shows.
std::optional<crypto::SecretText> ask(ControllingTerminal& terminal, std::string_view prompt,
                                      bool echo) {
    if (!echo) terminal.echoOff();
    terminal.write(prompt);
    auto line = terminal.readLine();
    terminal.restoreEcho();
    return line;
}

// Ends the PAM transaction with the last status, however the confirmation ends.
class PamTransaction {
  public:
    explicit PamTransaction(pam_handle_t* handle) : handle_(handle) {}
    PamTransaction(const PamTransaction&) = delete;
    PamTransaction& operator=(const PamTransaction&) = delete;
    ~PamTransaction() { pam_end(handle_, status_); }

    pam_handle_t* get() const { return handle_; }
    int record(int status) { return status_ = status; }

  private:
    pam_handle_t* handle_;
    int status_ = PAM_SUCCESS;
};

// Replies PAM has not taken over. PAM frees replies with free(), so they are malloc's; each may
// hold a password, wiped before it is freed. Answers not given yet are null.
struct DropAnswers {
    int count = 0;
    void operator()(pam_response* answers) const noexcept {
        // NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
        for (int i = 0; i < count; ++i) {
            if (answers[i].resp != nullptr)
                crypto::wipe(answers[i].resp, std::strlen(answers[i].resp));
            std::free(answers[i].resp);
        }
        std::free(answers);
        // NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    }
};

int converse(int count, const pam_message** messages, pam_response** replies, void* data) {
    auto& terminal = *static_cast<ControllingTerminal*>(data);
    const auto items = static_cast<std::size_t>(count);
    // PAM frees the replies with free().
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    auto* allocated = static_cast<pam_response*>(std::calloc(items, sizeof(pam_response)));
    std::unique_ptr<pam_response, DropAnswers> answers(allocated, DropAnswers{count});
    if (!answers) return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i) {
        const pam_message& message = *messages[i];
        const std::string text = message.msg != nullptr ? message.msg : "";
        switch (message.msg_style) {
            case PAM_PROMPT_ECHO_OFF:
            case PAM_PROMPT_ECHO_ON: {
                auto line = ask(terminal, text, message.msg_style == PAM_PROMPT_ECHO_ON);
                if (line) line->push_back('\0');
                answers.get()[i].resp = line ? strdup(line->data()) : nullptr;
                if (answers.get()[i].resp == nullptr) return PAM_CONV_ERR;
                break;
            }
            default:
                terminal.write(text + "\n");
        }
    }
    *replies = answers.release();
    return PAM_SUCCESS;
}

std::string currentUser() {
    const passwd* entry = ::getpwuid(::getuid());
    if (entry == nullptr || entry->pw_name == nullptr) refuse("the current user is unknown");
    return entry->pw_name;
}

}  // namespace

void PamPresenceGate::confirm() {
    ControllingTerminal terminal;
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
    PamTransaction transaction(handle);
    int result = transaction.record(pam_authenticate(handle, 0));
    if (result == PAM_SUCCESS) result = transaction.record(pam_acct_mgmt(handle, 0));
    if (result != PAM_SUCCESS) refuse(pam_strerror(handle, result));
}

}  // namespace keyloft::platform::key_processor
