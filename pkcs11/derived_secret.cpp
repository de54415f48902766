#include "pkcs11/derived_secret.hpp"

namespace keyloft::pkcs11 {

TokenObject derivedSecretObject(const platform::crypto::SecretBytes& secret,
                                std::span<const CK_ATTRIBUTE> keyTemplate,
                                CK_RV tokenObjectRefusal) {
    AttributeSet attributes;
    attributes.setUlong(CKA_CLASS, CKO_SECRET_KEY);
    attributes.setUlong(CKA_KEY_TYPE, CKK_GENERIC_SECRET);
    attributes.setBool(CKA_TOKEN, false);
    attributes.setBool(CKA_PRIVATE, false);
    attributes.setBool(CKA_MODIFIABLE, false);
    attributes.setBool(CKA_DESTROYABLE, true);
    attributes.setBool(CKA_LOCAL, false);
    attributes.setBool(CKA_SENSITIVE, false);
    attributes.setBool(CKA_EXTRACTABLE, true);
    attributes.set(CKA_LABEL, {});
    attributes.set(CKA_ID, {});
    std::size_t length = secret.size();
    bool sensitive = false;
    for (const auto& attribute : keyTemplate) {
        switch (attribute.type) {
            case CKA_CLASS:
                if (ulongOf(attribute) != CKO_SECRET_KEY)
                    throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
                break;
            case CKA_TOKEN:
                if (boolOf(attribute)) throw CryptokiError(tokenObjectRefusal);
                break;
            case CKA_VALUE_LEN:
                length = ulongOf(attribute);
                if (length == 0 || length > secret.size())
                    throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
                break;
            case CKA_KEY_TYPE:
                attributes.setUlong(CKA_KEY_TYPE, ulongOf(attribute));
                break;
            case CKA_VALUE:
                throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
            case CKA_SENSITIVE:
                sensitive = boolOf(attribute);
                attributes.setBool(CKA_SENSITIVE, sensitive);
                break;
            default: {
                // Usage flags, label, id and the like are the application's to set.
                const auto* value = static_cast<const std::uint8_t*>(attribute.pValue);
                if (value == nullptr && attribute.ulValueLen != 0)
                    throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
                attributes.set(attribute.type, Bytes(value, value + attribute.ulValueLen));
            }
        }
    }
    attributes.setUlong(CKA_VALUE_LEN, length);
    if (sensitive) {
        attributes.setSensitive(CKA_VALUE);
    } else {
        attributes.set(CKA_VALUE,
                       Bytes(secret.begin(), secret.begin() + static_cast<std::ptrdiff_t>(length)));
    }
    return {{CKO_SECRET_KEY, {}}, std::move(attributes), std::nullopt};
}

}  // namespace keyloft::pkcs11
