#include "keyloft/entry.hpp"

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.hpp"
#include "card/user_card.hpp"
#include "keyloft/command_line.hpp"
#include "keyloft/keyloft_app.hpp"

namespace keyloft {
namespace {

void printError(std::string_view description) {
    std::fflush(stdout);
    std::printf("Error: %.*s\n", static_cast<int>(description.size()), description.data());
    std::fflush(stdout);
}

}  // namespace

int runEntry(int argc, char** argv) {
    try {
        const std::vector<std::string_view> arguments(argv, argv + argc);
        const auto parsed = parseCommandLine(arguments);
        // The option fields are checked before the store is opened, so a bad word touches nothing.
        auto fields = optionFieldsFrom(parsed.options);
        KeyloftApp app(std::move(fields), card::userToken(card::openUserRegistry()));
        app.run(parsed.command);
    } catch (const KeyloftError& error) {
        printError(error.text());
    } catch (const std::exception& error) {
        // Platform errors and anything else the platform raised carry their own description.
        printError(error.what());
    }
    return 0;
}

}  // namespace keyloft
