#include "keyloft/error.hpp"
#include "keyloft/keyloft_app.hpp"

namespace keyloft {
namespace {

[[noreturn]] void notAvailable(Command command) {
    throw KeyloftError::generic("'" + std::string(word(command)) +
                                "' is not available in this build yet");
}

}  // namespace

void KeyloftApp::importIdentities() {
    notAvailable(Command::importIdentities);
}

}  // namespace keyloft
