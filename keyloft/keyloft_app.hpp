#pragma once

#include <optional>
#include <string>

#include "keyloft/command_line.hpp"
#include "keyloft/options.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/token_store/token_store.hpp"

namespace keyloft {

// The typed option values, with their defaults and conversions applied.
struct OptionFields {
    std::optional<std::string> label;
    std::optional<std::string> hash;
    std::optional<KeyType> keyType;
    KeyProtection keyProtection = KeyProtection::none;
    std::optional<std::string> fileName;
    std::optional<platform::crypto::SecretText> password;
    std::string commonName;
    std::string email;
    std::string organizationalUnit;
    std::string organization;
    std::string locality;
    std::string stateOrProvince;
    std::string country;
    std::optional<HashType> hashType;
    std::optional<HashEncoding> hashEncoding;
};

// Throws KeyloftError for a protection word other than "bio" or "none".
OptionFields optionFieldsFrom(const OptionsDictionary& options);

// The per-invocation context: the option fields and the tool's "user" token. Every command is
// one of its operations.
class KeyloftApp : public OptionFields {
  public:
    KeyloftApp(OptionFields fields, platform::token_store::Token token)
        : OptionFields(std::move(fields)), tokenConfiguration(std::move(token)) {}

    void run(Command command);

    void createIdentity();
    void deleteIdentity();
    void deleteAllIdentities();
    void listIdentities();
    void importIdentities();
    void exportIdentity();
    void importCertificate();
    void createCsr();

    platform::token_store::Token tokenConfiguration;
};

}  // namespace keyloft
