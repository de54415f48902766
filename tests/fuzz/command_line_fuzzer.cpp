// The process arguments, separated by NUL bytes, the program name first. Whatever the words,
// parsing gives a command with its options or the tool's generic error, and so does turning the
// options into fields. A command line that parses is written back in its shortest form (the
// command, then each option with its value), which parses to the same command and options.

#include <cstdlib>
#include <string>
#include <vector>

#include "base/error.hpp"
#include "keyloft/command_line.hpp"
#include "keyloft/keyloft_app.hpp"

namespace {

using keyloft::KeyloftError;

void check(bool condition) {
    if (!condition) std::abort();
}

std::vector<std::string_view> wordsOf(std::string_view text) {
    std::vector<std::string_view> words;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find('\0', start);
        words.push_back(text.substr(start, end - start));
        if (end == std::string_view::npos) return words;
        start = end + 1;
    }
}

// Runs a step that may refuse the words only with the generic error.
template <class Step>
bool succeeds(Step&& step) {
    try {
        step();
        return true;
    } catch (const KeyloftError& error) {
        check(error.errorCase() == KeyloftError::Case::genericError);
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto words = wordsOf({reinterpret_cast<const char*>(data), size});
    keyloft::ParsedCommandLine parsed{};
    if (!succeeds([&] { parsed = keyloft::parseCommandLine(words); })) return 0;

    std::vector<std::string> shortest{"keyloft", std::string(keyloft::word(parsed.command))};
    for (const auto& [key, value] : parsed.options) {
        shortest.push_back("-" + std::string(keyloft::word(key)));
        if (!value.empty()) shortest.push_back(value);
    }
    const std::vector<std::string_view> again(shortest.begin(), shortest.end());
    const auto reparsed = keyloft::parseCommandLine(again);
    check(reparsed.command == parsed.command && reparsed.options == parsed.options);

    succeeds([&] { keyloft::optionFieldsFrom(parsed.options); });
    return 0;
}
