#pragma once

#include <optional>
#include <span>
#include <string>

#include "pkcs11/card_writes.hpp"
#include "pkcs11/cryptoki.hpp"

// What the templates of the calls that change the card ask for. Each throws CryptokiError with
// the return value the standard gives for the first thing the card cannot do.
namespace keyloft::pkcs11 {

// A value as text, byte for byte (labels).
std::string textOf(const CK_ATTRIBUTE& attribute);
// The template's label, or nothing.
std::optional<std::string> labelIn(std::span<const CK_ATTRIBUTE> attributes);
// A flag the template gives, or nothing.
std::optional<bool> flagIn(std::span<const CK_ATTRIBUTE> attributes, CK_ATTRIBUTE_TYPE type);

// A template value that must be what the card makes anyway: CKR_TEMPLATE_INCONSISTENT for another.
void expectUlong(std::span<const CK_ATTRIBUTE> attributes, CK_ATTRIBUTE_TYPE type,
                 CK_ULONG expected);
// The card keeps objects only as token objects: CKR_TEMPLATE_INCONSISTENT unless CKA_TOKEN is
// true.
void expectTokenObject(std::span<const CK_ATTRIBUTE> attributes);

// The key pair C_GenerateKeyPair's two templates ask for.
// The mechanism is CKM_EC_KEY_PAIR_GEN or CKM_RSA_PKCS_KEY_PAIR_GEN.
KeyPairRequest keyPairRequestOf(CK_MECHANISM_TYPE mechanism,
                                std::span<const CK_ATTRIBUTE> publicTemplate,
                                std::span<const CK_ATTRIBUTE> privateTemplate);

}  // namespace keyloft::pkcs11
