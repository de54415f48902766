#include "keyloft/command_line.hpp"

#include <array>
#include <optional>

#include "base/error.hpp"

namespace keyloft {
namespace {

constexpr std::array<std::pair<Command, std::string_view>, 8> commandWords{{
    {Command::createIdentity, "create-identity"},
    {Command::deleteIdentity, "delete-identity"},
    {Command::deleteAllIdentities, "delete-all-identities"},
    {Command::listIdentities, "list-identities"},
    {Command::importIdentities, "import-identities"},
    {Command::exportIdentity, "export-identity"},
    {Command::importCertificate, "import-certificate"},
    {Command::createCsr, "create-csr"},
}};

std::optional<Command> commandFromWord(std::string_view word) {
    for (const auto& [command, commandWord] : commandWords) {
        if (commandWord == word) return command;
    }
    return std::nullopt;
}

}  // namespace

std::string_view word(Command command) {
    return commandWords.at(static_cast<std::size_t>(command)).second;
}

ParsedCommandLine parseCommandLine(std::span<const std::string_view> arguments) {
    std::optional<Command> command;
    std::optional<ArgumentKey> pending;
    OptionsDictionary options;

    for (const auto argument : arguments.subspan(arguments.empty() ? 0 : 1)) {
        if (argument.empty()) continue;
        if (!command) {
            // Anything before the command word, options included, is ignored.
            command = commandFromWord(argument);
            continue;
        }
        if (argument.front() == '-') {
            if (pending) options[*pending] = "";
            pending = argumentKeyFromWord(argument.substr(1));
            if (!pending) {
                throw KeyloftError::generic("Unrecognized commandline option '" +
                                            std::string(argument) + "'");
            }
            continue;
        }
        if (!pending) {
            throw KeyloftError::generic("Unexpected commandline argument '" +
                                        std::string(argument) + "'");
        }
        options[*pending] = std::string(argument);
        pending.reset();
    }
    if (pending) options[*pending] = "";
    if (!command) throw KeyloftError::generic("Missing sub-command");
    return {*command, std::move(options)};
}

}  // namespace keyloft
