#pragma once

#include "keyloft/bytes.hpp"
#include "platform/tessera/token_items.hpp"
#include "platform/tessera/token_store.hpp"

namespace keyloft::store {

// The 20-byte public-key hash of a DER certificate. Throws "Failed to parse certificate from data"
// or "Failed to retrieve public key hash".
Bytes certificatePublicKeyHash(ByteView certificate);

// Certificate items match by the hash of their certificate, key items by their stored public-key
// hash; a certificate that cannot be read fails the test instead of answering no.
bool itemMatchesHash(const platform::TesseraTokenItem& item, ByteView hash);

// Removes every item of the hash from the published list (the list is stored back even when
// nothing matched). A failing test stores the list back whole.
void removeIdentityItems(const platform::TesseraTokenConfiguration& token, ByteView hash);

// Removes the hash's stored-key record and stores the re-encoded records.
void removeKeyRecord(const platform::TesseraTokenConfiguration& token, ByteView hash);

}  // namespace keyloft::store
