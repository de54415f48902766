#pragma once

// Token key items and public-key files for keys made with OpenSSL, and a way to ask outside tools
// about them.

#include <openssl/pem.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "platform/tessera/token_items.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::testing {

inline platform::TesseraTokenKeyItem keyItemFor(EVP_PKEY* key) {
    const auto item = platform::makeKeyItem(makeCertificate(key), Bytes(20, 0x01));
    if (!item) throw std::runtime_error("no key item for the test key");
    return *item;
}

// The key as a PEM SubjectPublicKeyInfo file.
inline void writePublicKeyPem(EVP_PKEY* key, const std::filesystem::path& path) {
    std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path.c_str(), "w"), fclose);
    if (!file || PEM_write_PUBKEY(file.get(), key) != 1)
        throw std::runtime_error("PEM write failed");
}

// Standard output of a shell command; throws when it does not exit with status 0.
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
