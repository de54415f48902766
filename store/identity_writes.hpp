#pragma once

#include "keys/stored_key_records.hpp"
#include "platform/token_store/token_store.hpp"

// The card's changes: an identity's items and stored-key record added or removed.
namespace keyloft::store {

// Makes the certificate item and the key item of an identity, labelled, with the key's capability
// flags; throws the tool's item-creation messages.
struct IdentityItems {
    platform::token_store::TesseraTokenCertificateItem certificate;
    platform::token_store::TesseraTokenKeyItem key;
};
IdentityItems makeIdentityItems(ByteView certificate, ByteView hash, const std::string& label);

// Appends the certificate item, then the key item, each by replacing the whole list.
void appendIdentityItems(const platform::token_store::TesseraTokenConfiguration& token,
                         const IdentityItems& items);

// Stores the records with one more entry under the hash (an existing one is replaced).
void storeKeyRecord(const platform::token_store::TesseraTokenConfiguration& token,
                    keys::StoredKeyMap records, const Bytes& hash, keys::KeyStorage storage);

// Removes every item of the hash from the published list (the list is stored back even when
// nothing matched). A failing test stores the list back whole.
void removeIdentityItems(const platform::token_store::TesseraTokenConfiguration& token,
                         ByteView hash);

// Removes the hash's stored-key record and stores the re-encoded records.
void removeKeyRecord(const platform::token_store::TesseraTokenConfiguration& token, ByteView hash);

// Replaces the certificate item of the hash with one for the certificate, appended after the rest
// of the list; false when the card holds no certificate of the hash. Throws "Failed to create
// token certificate" when no item can be made of the certificate.
bool replaceCertificateItem(const platform::token_store::TesseraTokenConfiguration& token,
                            ByteView certificate, ByteView hash);

// Empties the card: no stored-key records, no items.
void removeAllIdentities(const platform::token_store::TesseraTokenConfiguration& token);

}  // namespace keyloft::store
