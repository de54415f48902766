#include "pkcs11/card_templates.hpp"

#include <algorithm>
#include <array>

#include "der/object_identifiers.hpp"
#include "der/record.hpp"
#include "pkcs11/attribute_set.hpp"

namespace keyloft::pkcs11 {
namespace {

constexpr std::array<std::uint8_t, 3> rsaPublicExponent{0x01, 0x00, 0x01};

// What a key-pair template may say of an attribute: anything (the call reads it, or the module
// takes any value), a boolean the made key has, or nothing at all (the token makes the value).
enum class Given : std::uint8_t { any, onlyTrue, onlyFalse, nothing };

struct TemplateRule {
    CK_ATTRIBUTE_TYPE type;
    Given publicKey;
    Given privateKey;
};

// Every attribute a key object can have; a template naming another is refused. CKA_PRIVATE may
// be true in the private template: pkcs11-tool always asks so, and the token has no login that
// could keep a key from the user's other programs.
constexpr std::array templateRules{
    TemplateRule{CKA_CLASS, Given::any, Given::any},
    TemplateRule{CKA_TOKEN, Given::any, Given::any},
    TemplateRule{CKA_KEY_TYPE, Given::any, Given::any},
    TemplateRule{CKA_LABEL, Given::any, Given::any},
    TemplateRule{CKA_ID, Given::any, Given::any},
    TemplateRule{CKA_SUBJECT, Given::any, Given::any},
    TemplateRule{CKA_START_DATE, Given::any, Given::any},
    TemplateRule{CKA_END_DATE, Given::any, Given::any},
    TemplateRule{CKA_ALLOWED_MECHANISMS, Given::any, Given::any},
    TemplateRule{CKA_PRIVATE, Given::onlyFalse, Given::any},
    TemplateRule{CKA_MODIFIABLE, Given::onlyTrue, Given::onlyTrue},
    TemplateRule{CKA_COPYABLE, Given::onlyFalse, Given::onlyFalse},
    TemplateRule{CKA_DESTROYABLE, Given::onlyTrue, Given::onlyTrue},
    TemplateRule{CKA_EC_PARAMS, Given::any, Given::nothing},
    TemplateRule{CKA_MODULUS_BITS, Given::any, Given::nothing},
    TemplateRule{CKA_PUBLIC_EXPONENT, Given::any, Given::nothing},
    TemplateRule{CKA_VERIFY, Given::any, Given::nothing},
    TemplateRule{CKA_ENCRYPT, Given::any, Given::nothing},
    TemplateRule{CKA_DERIVE, Given::any, Given::any},
    TemplateRule{CKA_VERIFY_RECOVER, Given::onlyFalse, Given::nothing},
    TemplateRule{CKA_WRAP, Given::onlyFalse, Given::nothing},
    TemplateRule{CKA_TRUSTED, Given::onlyFalse, Given::nothing},
    TemplateRule{CKA_SIGN, Given::nothing, Given::any},
    TemplateRule{CKA_DECRYPT, Given::nothing, Given::any},
    TemplateRule{CKA_EXTRACTABLE, Given::nothing, Given::any},
    TemplateRule{CKA_SENSITIVE, Given::nothing, Given::onlyTrue},
    TemplateRule{CKA_SIGN_RECOVER, Given::nothing, Given::onlyFalse},
    TemplateRule{CKA_UNWRAP, Given::nothing, Given::onlyFalse},
    TemplateRule{CKA_ALWAYS_AUTHENTICATE, Given::nothing, Given::onlyFalse},
    TemplateRule{CKA_WRAP_WITH_TRUSTED, Given::nothing, Given::onlyFalse},
    // Made by the token with the key.
    TemplateRule{CKA_LOCAL, Given::nothing, Given::nothing},
    TemplateRule{CKA_KEY_GEN_MECHANISM, Given::nothing, Given::nothing},
    TemplateRule{CKA_PUBLIC_KEY_INFO, Given::nothing, Given::nothing},
    TemplateRule{CKA_MODULUS, Given::nothing, Given::nothing},
    TemplateRule{CKA_EC_POINT, Given::nothing, Given::nothing},
    TemplateRule{CKA_VALUE, Given::nothing, Given::nothing},
    TemplateRule{CKA_PRIVATE_EXPONENT, Given::nothing, Given::nothing},
    TemplateRule{CKA_PRIME_1, Given::nothing, Given::nothing},
    TemplateRule{CKA_PRIME_2, Given::nothing, Given::nothing},
    TemplateRule{CKA_EXPONENT_1, Given::nothing, Given::nothing},
    TemplateRule{CKA_EXPONENT_2, Given::nothing, Given::nothing},
    TemplateRule{CKA_COEFFICIENT, Given::nothing, Given::nothing},
    TemplateRule{CKA_ALWAYS_SENSITIVE, Given::nothing, Given::nothing},
    TemplateRule{CKA_NEVER_EXTRACTABLE, Given::nothing, Given::nothing},
};

// A template refused before anything else is read: an attribute no key has
// (CKR_ATTRIBUTE_TYPE_INVALID), one given twice with different values, one the token makes
// itself, or a value the module would not honour (CKR_TEMPLATE_INCONSISTENT).
void checkKeyTemplate(std::span<const CK_ATTRIBUTE> keyTemplate, CK_OBJECT_CLASS keyClass) {
    for (std::size_t i = 0; i < keyTemplate.size(); ++i) {
        const auto& attribute = keyTemplate[i];
        const auto rule = std::ranges::find(templateRules, attribute.type, &TemplateRule::type);
        if (rule == templateRules.end()) throw CryptokiError(CKR_ATTRIBUTE_TYPE_INVALID);
        const Given given = keyClass == CKO_PUBLIC_KEY ? rule->publicKey : rule->privateKey;
        const bool honoured = given == Given::any ||
                              (given == Given::onlyTrue && boolOf(attribute)) ||
                              (given == Given::onlyFalse && !boolOf(attribute));
        if (!honoured) throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
        for (std::size_t j = 0; j < i; ++j) {
            if (keyTemplate[j].type == attribute.type &&
                valueOf(keyTemplate[j]) != valueOf(attribute))
                throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
        }
    }
}

// A key asked for as non-extractable is made inside the key processor; a wrapped key can be
// exported with the tool.
bool extractableIn(std::span<const CK_ATTRIBUTE> privateTemplate) {
    return flagIn(privateTemplate, CKA_EXTRACTABLE).value_or(true);
}

// The key type of a new EC key pair from the curve.
KeyType ecKeyTypeFor(std::span<const CK_ATTRIBUTE> publicTemplate,
                     std::span<const CK_ATTRIBUTE> privateTemplate) {
    const auto* parameters = findIn(publicTemplate, CKA_EC_PARAMS);
    if (parameters == nullptr) throw CryptokiError(CKR_TEMPLATE_INCOMPLETE);
    if (findIn(publicTemplate, CKA_MODULUS_BITS) != nullptr)
        throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
    const Bytes curve = valueOf(*parameters);
    int sizeInBits = 0;
    for (const int size : {256, 384, 521}) {
        if (curve == der::encode(der::oidRecord(der::curveOidForSize(size)))) sizeInBits = size;
    }
    if (sizeInBits == 0) throw CryptokiError(CKR_CURVE_NOT_SUPPORTED);
    const bool extractable = extractableIn(privateTemplate);
    switch (sizeInBits) {
        case 256:
            return extractable ? KeyType::p256 : KeyType::p256ne;
        case 384:
            return extractable ? KeyType::p384 : KeyType::p384ne;
        default:
            // The key processor holds no P-521 keys.
            if (!extractable) throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
            return KeyType::p521;
    }
}

// The key type of a new RSA key pair from the modulus size; the public exponent is 65537.
KeyType rsaKeyTypeFor(std::span<const CK_ATTRIBUTE> publicTemplate,
                      std::span<const CK_ATTRIBUTE> privateTemplate) {
    const auto* bits = findIn(publicTemplate, CKA_MODULUS_BITS);
    if (bits == nullptr) throw CryptokiError(CKR_TEMPLATE_INCOMPLETE);
    if (findIn(publicTemplate, CKA_EC_PARAMS) != nullptr)
        throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
    if (const auto* exponent = findIn(publicTemplate, CKA_PUBLIC_EXPONENT)) {
        // Big-endian, leading zeros allowed.
        Bytes value = valueOf(*exponent);
        const auto first = std::find_if(value.begin(), value.end(), [](auto b) { return b != 0; });
        if (!std::equal(first, value.end(), rsaPublicExponent.begin(), rsaPublicExponent.end()))
            throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
    }
    const bool extractable = extractableIn(privateTemplate);
    switch (ulongOf(*bits)) {
        case 2048:
            return extractable ? KeyType::rsa2048 : KeyType::rsa2048ne;
        case 3072:
            return extractable ? KeyType::rsa3072 : KeyType::rsa3072ne;
        default:
            throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
    }
}

}  // namespace

std::string textOf(const CK_ATTRIBUTE& attribute) {
    const Bytes value = valueOf(attribute);
    return {value.begin(), value.end()};
}

std::optional<std::string> labelIn(std::span<const CK_ATTRIBUTE> attributes) {
    const auto* label = findIn(attributes, CKA_LABEL);
    return label != nullptr ? std::optional(textOf(*label)) : std::nullopt;
}

std::optional<bool> flagIn(std::span<const CK_ATTRIBUTE> attributes, CK_ATTRIBUTE_TYPE type) {
    const auto* attribute = findIn(attributes, type);
    return attribute != nullptr ? std::optional(boolOf(*attribute)) : std::nullopt;
}

void expectUlong(std::span<const CK_ATTRIBUTE> attributes, CK_ATTRIBUTE_TYPE type,
                 CK_ULONG expected) {
    const auto* attribute = findIn(attributes, type);
    if (attribute != nullptr && ulongOf(*attribute) != expected)
        throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
}

void expectTokenObject(std::span<const CK_ATTRIBUTE> attributes) {
    const auto* token = findIn(attributes, CKA_TOKEN);
    if (token == nullptr || !boolOf(*token)) throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
}

KeyPairRequest keyPairRequestOf(CK_MECHANISM_TYPE mechanism,
                                std::span<const CK_ATTRIBUTE> publicTemplate,
                                std::span<const CK_ATTRIBUTE> privateTemplate) {
    const bool rsa = mechanism == CKM_RSA_PKCS_KEY_PAIR_GEN;
    for (const auto& [keyTemplate, keyClass] :
         {std::pair{publicTemplate, CKO_PUBLIC_KEY}, {privateTemplate, CKO_PRIVATE_KEY}}) {
        checkKeyTemplate(keyTemplate, keyClass);
        expectTokenObject(keyTemplate);
        expectUlong(keyTemplate, CKA_CLASS, keyClass);
        expectUlong(keyTemplate, CKA_KEY_TYPE, rsa ? CKK_RSA : CKK_EC);
    }
    // An id asked for is not kept: the card names every key by its public-key hash, which pairs
    // it with its certificate (GnuTLS asks for a random one).
    KeyPairRequest request{rsa ? rsaKeyTypeFor(publicTemplate, privateTemplate)
                               : ecKeyTypeFor(publicTemplate, privateTemplate)};
    // One label for the identity: the private key's, else the public key's.
    request.label = labelIn(privateTemplate);
    if (!request.label) request.label = labelIn(publicTemplate);
    request.canSign = flagIn(privateTemplate, CKA_SIGN).value_or(true);
    // An RSA key decrypts, an EC key derives; neither does the other.
    const auto otherUse = rsa ? CKA_DERIVE : CKA_DECRYPT;
    if (flagIn(privateTemplate, otherUse).value_or(false))
        throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
    request.canDecryptOrDerive =
        flagIn(privateTemplate, rsa ? CKA_DECRYPT : CKA_DERIVE).value_or(true);
    return request;
}

}  // namespace keyloft::pkcs11
