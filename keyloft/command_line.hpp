#pragma once

#include <map>
#include <span>
#include <string>
#include <string_view>

#include "keyloft/options.hpp"

namespace keyloft {

// The sub-commands, in the order of their indexes.
enum class Command {
    createIdentity,
    deleteIdentity,
    deleteAllIdentities,
    listIdentities,
    importIdentities,
    exportIdentity,
    importCertificate,
    createCsr,
};

std::string_view word(Command command);

using OptionsDictionary = std::map<ArgumentKey, std::string>;

struct ParsedCommandLine {
    Command command;
    OptionsDictionary options;
};

// Parses the process arguments (the program name first). Throws KeyloftError with one of
// "Missing sub-command", "Unexpected commandline argument '…'", "Unrecognized commandline option
// '…'".
ParsedCommandLine parseCommandLine(std::span<const std::string_view> arguments);

}  // namespace keyloft
