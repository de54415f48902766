#include "pkcs11/attribute_set.hpp"

#include <algorithm>
#include <cstring>

#include "platform/crypto/secret.hpp"

namespace keyloft::pkcs11 {

Bytes ulongValue(CK_ULONG value) {
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

Bytes boolValue(bool value) {
    return {static_cast<std::uint8_t>(value ? CK_TRUE : CK_FALSE)};
}

CK_ULONG ulongOf(const CK_ATTRIBUTE& attribute) {
    CK_ULONG value = 0;
    if (attribute.pValue == nullptr || attribute.ulValueLen != sizeof value)
        throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
    std::memcpy(&value, attribute.pValue, sizeof value);
    return value;
}

bool boolOf(const CK_ATTRIBUTE& attribute) {
    if (attribute.pValue == nullptr || attribute.ulValueLen != sizeof(CK_BBOOL))
        throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
    return *static_cast<const CK_BBOOL*>(attribute.pValue) != CK_FALSE;
}

Bytes valueOf(const CK_ATTRIBUTE& attribute) {
    // No value the card takes comes near this (a certificate is a few KiB); a length beyond it is
    // a caller's mistake, refused before anything is read.
    constexpr CK_ULONG largestValue = 1U << 20U;
    const auto* value = static_cast<const std::uint8_t*>(attribute.pValue);
    if ((value == nullptr && attribute.ulValueLen != 0) || attribute.ulValueLen > largestValue)
        throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
    return value == nullptr ? Bytes{} : Bytes(value, value + attribute.ulValueLen);
}

const CK_ATTRIBUTE* findIn(std::span<const CK_ATTRIBUTE> attributes, CK_ATTRIBUTE_TYPE type) {
    const CK_ATTRIBUTE* found = nullptr;
    for (const auto& attribute : attributes) {
        if (attribute.type == type) found = &attribute;
    }
    return found;
}

AttributeSet::~AttributeSet() {
    for (auto& [type, value] : values_) {
        if (value) platform::crypto::wipe(value->data(), value->size());
    }
}

const Bytes* AttributeSet::find(CK_ATTRIBUTE_TYPE type) const {
    const auto found = values_.find(type);
    if (found == values_.end() || !found->second) return nullptr;
    return &*found->second;
}

bool AttributeSet::matches(std::span<const CK_ATTRIBUTE> searchTemplate) const {
    return std::all_of(searchTemplate.begin(), searchTemplate.end(), [&](const CK_ATTRIBUTE& a) {
        const Bytes* value = find(a.type);
        if (value == nullptr || value->size() != a.ulValueLen) return false;
        return value->empty() ||
               (a.pValue != nullptr && std::memcmp(value->data(), a.pValue, value->size()) == 0);
    });
}

CK_RV AttributeSet::copyInto(std::span<CK_ATTRIBUTE> request) const {
    // Every attribute is answered even after a failure; the last failure is the one reported.
    CK_RV rv = CKR_OK;
    for (auto& attribute : request) {
        const auto found = values_.find(attribute.type);
        if (found == values_.end()) {
            attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            rv = CKR_ATTRIBUTE_TYPE_INVALID;
        } else if (!found->second) {
            attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            rv = CKR_ATTRIBUTE_SENSITIVE;
        } else if (attribute.pValue == nullptr) {
            attribute.ulValueLen = found->second->size();
        } else if (attribute.ulValueLen < found->second->size()) {
            attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            rv = CKR_BUFFER_TOO_SMALL;
        } else {
            std::copy(found->second->begin(), found->second->end(),
                      static_cast<std::uint8_t*>(attribute.pValue));
            attribute.ulValueLen = found->second->size();
        }
    }
    return rv;
}

}  // namespace keyloft::pkcs11
