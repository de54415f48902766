#pragma once

// Public keys made with OpenSSL as the key service reports them, and the shell for asking outside
// tools about them.

#include <openssl/pem.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "base/public_key_attributes.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::testing {

// The EC point or the DER RSAPublicKey, as OpenSSL writes them.
inline PublicKeyAttributes publicKeyOf(EVP_PKEY* key) {
    unsigned char* data = nullptr;
    const int length = i2d_PublicKey(key, &data);
    if (length <= 0) throw std::runtime_error("i2d_PublicKey failed");
    Bytes representation(data, data + length);
    OPENSSL_free(data);
    const bool ec = EVP_PKEY_get_base_id(key) == EVP_PKEY_EC;
    return {ec ? "ec" : "rsa", EVP_PKEY_get_bits(key), std::move(representation)};
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
