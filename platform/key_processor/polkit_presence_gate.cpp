#include "platform/key_processor/polkit_presence_gate.hpp"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "base/error.hpp"
#include "platform/os/controlling_terminal.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr const char* polkitService = "org.freedesktop.PolicyKit1";
constexpr const char* authorityPath = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char* authorityInterface = "org.freedesktop.PolicyKit1.Authority";
constexpr std::uint32_t allowUserInteraction = 1;

[[noreturn]] void refuse(const std::string& why) {
    throw PlatformError("User presence could not be confirmed: " + why, presenceNotConfirmedCode);
}

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

class BusError {
  public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&error_); }

    sd_bus_error* get() { return &error_; }
    bool is(const char* name) const { return sd_bus_error_has_name(&error_, name) != 0; }
    std::string describe(int status) const {
        if (error_.message != nullptr) return error_.message;
        return std::strerror(-status);
    }

  private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

// A dialog left open past the call's timeout is closed, so no answer arrives for a call that gave
// up; best effort, since the answer is ignored either way.
void cancelCheck(sd_bus* bus, const std::string& cancellationId) {
    sd_bus_call_method(bus, polkitService, authorityPath, authorityInterface,
                       "CancelCheckAuthorization", nullptr, nullptr, "s", cancellationId.c_str());
}

}  // namespace

std::optional<std::string> PolkitPresenceGate::ask() const {
    sd_bus* opened = nullptr;
    const int status = sd_bus_open_system(&opened);
    const Bus bus(opened);
    if (status < 0) {
        return "the desktop's authentication (polkit) cannot be reached: no system bus (" +
               std::string(std::strerror(-status)) + ")";
    }
    // The subject is this process's own connection: polkit reads its user and process from the
    // bus, so no process id can be reused between the question and the answer.
    const char* uniqueName = nullptr;
    if (const int named = sd_bus_get_unique_name(bus.get(), &uniqueName); named < 0) {
        return "the system bus did not name this process (" + std::string(std::strerror(-named)) +
               ")";
    }
    const std::string cancellationId = std::string("keyloft-") + uniqueName;

    sd_bus_message* built = nullptr;
    int result = sd_bus_message_new_method_call(bus.get(), &built, polkitService, authorityPath,
                                                authorityInterface, "CheckAuthorization");
    const Message call(built);
    // Unprivileged callers may not pass details, so the dialog shows the action's own message.
    if (result >= 0) {
        result = sd_bus_message_append(call.get(), "(sa{sv})sa{ss}us", "system-bus-name", 1, "name",
                                       "s", uniqueName, polkitUseKeyAction, 0, allowUserInteraction,
                                       cancellationId.c_str());
    }
    if (result < 0) return "the question to polkit could not be built";

    BusError error;
    sd_bus_message* answered = nullptr;
    const auto timeout =
        std::chrono::duration_cast<std::chrono::microseconds>(answerTimeout_).count();
    result = sd_bus_call(bus.get(), call.get(), static_cast<std::uint64_t>(timeout), error.get(),
                         &answered);
    const Message reply(answered);
    if (result < 0) {
        if (error.is(SD_BUS_ERROR_SERVICE_UNKNOWN) || error.is(SD_BUS_ERROR_NAME_HAS_NO_OWNER)) {
            return "the desktop's authentication (polkit) is not running";
        }
        if (error.is(SD_BUS_ERROR_NO_REPLY) || result == -ETIMEDOUT) {
            cancelCheck(bus.get(), cancellationId);
            return "the desktop's authentication was not answered in time";
        }
        return "polkit refused the question: " + error.describe(result);
    }

    int authorized = 0;
    int challenge = 0;
    if (sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_STRUCT, "bba{ss}") < 0 ||
        sd_bus_message_read(reply.get(), "bb", &authorized, &challenge) < 0) {
        return "polkit's answer could not be read";
    }
    if (authorized != 0) return std::nullopt;
    return challenge != 0 ? "the desktop's authentication was refused, cancelled, or had no "
                            "authentication agent to ask"
                          : "polkit does not allow this user to use protected keys";
}

void PolkitPresenceGate::confirm() {
    if (auto why = ask()) refuse(*why);
}

void TerminalOrDesktopPresenceGate::confirm() {
    if (os::ControllingTerminal().isOpen()) return terminal_.confirm();
    if (auto why = desktop_.ask()) refuse("no controlling terminal, and " + *why);
}

}  // namespace keyloft::platform::key_processor
