#include <iostream>

#include "card/identity_writes.hpp"
#include "keyloft/keyloft_app.hpp"
#include "platform/os/terminal.hpp"

namespace keyloft {
namespace {

bool equalsIgnoringCase(std::string_view text, std::string_view lowerCaseWord) {
    if (text.size() != lowerCaseWord.size()) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const char lower = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
        if (lower != lowerCaseWord[i]) return false;
    }
    return true;
}

}  // namespace

void KeyloftApp::deleteAllIdentities() {
    for (;;) {
        std::cout << "Are you sure you want to delete all identities (yes/no)?" << std::endl;
        const auto answer = platform::os::readStandardInputLine();
        // No answer can come any more: leave the card as it is.
        if (!answer) return;
        if (equalsIgnoringCase(*answer, "yes") || equalsIgnoringCase(*answer, "y")) break;
        if (equalsIgnoringCase(*answer, "no") || equalsIgnoringCase(*answer, "n")) return;
    }
    tokenConfiguration.writeCommittingEvenOnThrow(
        [&] { card::removeAllIdentities(tokenConfiguration); });
}

}  // namespace keyloft
