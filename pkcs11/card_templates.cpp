#include "pkcs11/card_templates.hpp"

#include "der/object_identifiers.hpp"
#include "der/record.hpp"
#include "pkcs11/attribute_set.hpp"

namespace keyloft::pkcs11 {
namespace {

// The key type of a new key pair from the curve and whether the key may leave the slot.
KeyType keyTypeFor(std::span<const CK_ATTRIBUTE> publicTemplate,
                   std::span<const CK_ATTRIBUTE> privateTemplate) {
    const auto* parameters = findIn(publicTemplate, CKA_EC_PARAMS);
    if (parameters == nullptr) throw CryptokiError(CKR_TEMPLATE_INCOMPLETE);
    const Bytes curve = valueOf(*parameters);
    int sizeInBits = 0;
    for (const int size : {256, 384, 521}) {
        if (curve == der::encode(der::oidRecord(der::curveOidForSize(size)))) sizeInBits = size;
    }
    if (sizeInBits == 0) throw CryptokiError(CKR_CURVE_NOT_SUPPORTED);
    // A key asked for as non-extractable is made inside the key processor; a wrapped key can be
    // exported with the tool.
    const bool extractable = flagIn(privateTemplate, CKA_EXTRACTABLE).value_or(true);
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

KeyPairRequest keyPairRequestOf(std::span<const CK_ATTRIBUTE> publicTemplate,
                                std::span<const CK_ATTRIBUTE> privateTemplate) {
    for (const auto& [keyTemplate, keyClass] :
         {std::pair{publicTemplate, CKO_PUBLIC_KEY}, {privateTemplate, CKO_PRIVATE_KEY}}) {
        expectTokenObject(keyTemplate);
        expectUlong(keyTemplate, CKA_CLASS, keyClass);
        expectUlong(keyTemplate, CKA_KEY_TYPE, CKK_EC);
    }
    // An id asked for is not kept: the card names every key by its public-key hash, which pairs
    // it with its certificate (GnuTLS asks for a random one).
    KeyPairRequest request{keyTypeFor(publicTemplate, privateTemplate)};
    // One label for the identity: the private key's, else the public key's.
    request.label = labelIn(privateTemplate);
    if (!request.label) request.label = labelIn(publicTemplate);
    request.canSign = flagIn(privateTemplate, CKA_SIGN).value_or(true);
    request.canDerive = flagIn(privateTemplate, CKA_DERIVE).value_or(true);
    return request;
}

}  // namespace keyloft::pkcs11
