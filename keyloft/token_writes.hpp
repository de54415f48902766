#pragma once

#include "keys/stored_key_records.hpp"
#include "platform/tessera/token_store.hpp"

namespace keyloft {

// Makes the certificate item and the key item of an identity, labelled, with the key's capability
// flags; throws the tool's item-creation messages.
struct IdentityItems {
    platform::TesseraTokenCertificateItem certificate;
    platform::TesseraTokenKeyItem key;
};
IdentityItems makeIdentityItems(ByteView certificate, ByteView hash, const std::string& label);

// Appends the certificate item, then the key item, each by replacing the whole list.
void appendIdentityItems(const platform::TesseraTokenConfiguration& token,
                         const IdentityItems& items);

// Stores the records with one more entry under the hash (an existing one is replaced).
void storeKeyRecord(const platform::TesseraTokenConfiguration& token, keys::StoredKeyMap records,
                    const Bytes& hash, keys::KeyStorage storage);

}  // namespace keyloft
