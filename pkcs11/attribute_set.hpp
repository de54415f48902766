#pragma once

#include <map>
#include <memory>
#include <optional>
#include <span>

#include "base/bytes.hpp"
#include "pkcs11/cryptoki.hpp"

namespace keyloft::pkcs11 {

Bytes ulongValue(CK_ULONG value);
Bytes boolValue(bool value);

// An object's attributes. A sensitive attribute exists but its value is never given out. Copies
// share their values until one of them is changed, so that the objects of an unchanged item are
// not rebuilt when the card is read again.
class AttributeSet {
  public:
    void set(CK_ATTRIBUTE_TYPE type, Bytes value) { entries()[type] = std::move(value); }
    void setBool(CK_ATTRIBUTE_TYPE type, bool value) { set(type, boolValue(value)); }
    void setUlong(CK_ATTRIBUTE_TYPE type, CK_ULONG value) { set(type, ulongValue(value)); }
    void setSensitive(CK_ATTRIBUTE_TYPE type) { entries()[type] = std::nullopt; }

    // The value, or nothing when the attribute is absent or sensitive.
    const Bytes* find(CK_ATTRIBUTE_TYPE type) const;

    // True when every attribute of the template is present with exactly that value.
    bool matches(std::span<const CK_ATTRIBUTE> searchTemplate) const;

    // Fills the template as C_GetAttributeValue does: lengths for null buffers, values where they
    // fit, CK_UNAVAILABLE_INFORMATION for the rest; answers the failure that applies, or CKR_OK.
    CK_RV copyInto(std::span<CK_ATTRIBUTE> request) const;

  private:
    using Entries = std::map<CK_ATTRIBUTE_TYPE, std::optional<Bytes>>;
    struct Values {
        Entries entries;
        // Values may be derived secrets; none is left behind in freed memory.
        ~Values();
    };

    // The entries, made this set's own first when it shares them.
    Entries& entries();
    const Entries& readEntries() const;

    std::shared_ptr<Values> values_;
};

}  // namespace keyloft::pkcs11
