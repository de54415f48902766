#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

namespace keyloft::testing {

// Runs a Python script with the system interpreter (which has `cryptography`); returns its
// standard output, or throws when it fails.
inline std::string runPython(const std::string& script, const std::string& arguments = "") {
    const std::string command = "/usr/bin/python3 -c '" + script + "' " + arguments;
    std::FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run python3");
    std::string out;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    if (::pclose(pipe) != 0) throw std::runtime_error("python3 failed: " + out);
    return out;
}

}  // namespace keyloft::testing
