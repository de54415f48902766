#pragma once

// Token key items for keys made with OpenSSL, and the shell for asking outside tools about them.

#include <openssl/pem.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "platform/token_store/token_items.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::testing {

inline platform::token_store::KeyItem keyItemFor(EVP_PKEY* key) {
    return platform::token_store::makeKeyItem(makeCertificate(key), Bytes(20, 0x01)).value();
}

inline void writePublicKeyPem(EVP_PKEY* key, const std::filesystem::path& path) {
    FILE* file = fopen(path.c_str(), "w");
    const bool written = file != nullptr && PEM_write_PUBKEY(file, key) == 1;
    if (file != nullptr) fclose(file);
    if (!written) throw std::runtime_error("cannot write " + path.string());
}

// Standard output of a shell command that must succeed.
inline std::string commandOutput(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("popen failed: " + command);
    std::string output;
    char buffer[4096];
    for (std::size_t n = 0; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, n);
    if (pclose(pipe) != 0) throw std::runtime_error("command failed: " + command + "\n" + output);
    return output;
}

}  // namespace keyloft::testing
