#include "keyloft/keyloft_app.hpp"

#include "base/error.hpp"

namespace keyloft {
namespace {

std::optional<std::string> valueOf(const OptionsDictionary& options, ArgumentKey key) {
    const auto found = options.find(key);
    if (found == options.end()) return std::nullopt;
    return found->second;
}

std::string textOf(const OptionsDictionary& options, ArgumentKey key) {
    return valueOf(options, key).value_or("");
}

}  // namespace

OptionFields optionFieldsFrom(const OptionsDictionary& options) {
    OptionFields fields;
    fields.label = valueOf(options, ArgumentKey::label);
    fields.hash = valueOf(options, ArgumentKey::hash);
    if (const auto type = valueOf(options, ArgumentKey::keyType))
        fields.keyType = keyTypeFromWord(*type);

    const auto protectionWord = valueOf(options, ArgumentKey::keyProtection).value_or("none");
    const auto protection = keyProtectionFromWord(protectionWord);
    if (!protection) {
        throw KeyloftError::generic("Unsupported 'prot' paramater value '" + protectionWord +
                                    "': use 'bio' or 'none'");
    }
    fields.keyProtection = *protection;

    fields.fileName = valueOf(options, ArgumentKey::fileName);
    if (const auto password = valueOf(options, ArgumentKey::password)) {
        fields.password = platform::crypto::secretTextOf(*password);
    }
    fields.commonName =
        valueOf(options, ArgumentKey::commonName).value_or(fields.label.value_or(""));
    fields.email = textOf(options, ArgumentKey::email);
    fields.organizationalUnit = textOf(options, ArgumentKey::organizationalUnit);
    fields.organization = textOf(options, ArgumentKey::organization);
    fields.locality = textOf(options, ArgumentKey::locality);
    fields.stateOrProvince = textOf(options, ArgumentKey::stateOrProvince);
    fields.country = textOf(options, ArgumentKey::country);

    fields.hashType = hashTypeFromWord(valueOf(options, ArgumentKey::hashType).value_or("sha1"));
    const auto defaultEncoding = fields.hashType == HashType::sha1 ? "hex" : "b64";
    fields.hashEncoding =
        hashEncodingFromWord(valueOf(options, ArgumentKey::hashEncoding).value_or(defaultEncoding));
    return fields;
}

void KeyloftApp::run(Command command) {
    switch (command) {
        case Command::createIdentity:
            return createIdentity();
        case Command::deleteIdentity:
            return deleteIdentity();
        case Command::deleteAllIdentities:
            return deleteAllIdentities();
        case Command::listIdentities:
            return listIdentities();
        case Command::importIdentities:
            return importIdentities();
        case Command::exportIdentity:
            return exportIdentity();
        case Command::importCertificate:
            return importCertificate();
        case Command::createCsr:
            return createCsr();
    }
}

}  // namespace keyloft
