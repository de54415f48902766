#pragma once

#include <map>
#include <optional>
#include <span>

#include "base/bytes.hpp"
#include "pkcs11/cryptoki.hpp"

namespace keyloft::pkcs11 {

Bytes ulongValue(CK_ULONG value);
Bytes boolValue(bool value);

// Values of an application's template; each throws CKR_ATTRIBUTE_VALUE_INVALID for a value of
// the wrong size.
CK_ULONG ulongOf(const CK_ATTRIBUTE& attribute);
bool boolOf(const CK_ATTRIBUTE& attribute);
Bytes valueOf(const CK_ATTRIBUTE& attribute);
// The last attribute of the type in the template, or nothing.
const CK_ATTRIBUTE* findIn(std::span<const CK_ATTRIBUTE> attributes, CK_ATTRIBUTE_TYPE type);

// An object's attributes. A sensitive attribute exists but its value is never given out.
class AttributeSet {
  public:
    AttributeSet() = default;
    AttributeSet(const AttributeSet&) = default;
    AttributeSet(AttributeSet&&) = default;
    AttributeSet& operator=(const AttributeSet&) = default;
    AttributeSet& operator=(AttributeSet&&) = default;
    // Values may be derived secrets; none is left behind in freed memory.
    ~AttributeSet();

    void set(CK_ATTRIBUTE_TYPE type, Bytes value) { values_[type] = std::move(value); }
    void setBool(CK_ATTRIBUTE_TYPE type, bool value) { set(type, boolValue(value)); }
    void setUlong(CK_ATTRIBUTE_TYPE type, CK_ULONG value) { set(type, ulongValue(value)); }
    void setSensitive(CK_ATTRIBUTE_TYPE type) { values_[type] = std::nullopt; }

    // The value, or nothing when the attribute is absent or sensitive.
    const Bytes* find(CK_ATTRIBUTE_TYPE type) const;

    // True when every attribute of the template is present with exactly that value.
    bool matches(std::span<const CK_ATTRIBUTE> searchTemplate) const;

    // Fills the template as C_GetAttributeValue does: lengths for null buffers, values where they
    // fit, CK_UNAVAILABLE_INFORMATION for the rest; answers the failure that applies, or CKR_OK.
    CK_RV copyInto(std::span<CK_ATTRIBUTE> request) const;

  private:
    std::map<CK_ATTRIBUTE_TYPE, std::optional<Bytes>> values_;
};

}  // namespace keyloft::pkcs11
