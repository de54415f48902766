#pragma once

#include <memory>
#include <optional>

#include "base/bytes.hpp"
#include "keys/key_type.hpp"

#include "keys/stored_key_records.hpp"
#include "platform/key_processor/key_processor.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::keys {

// The access-control word of a processor key: private-key usage, plus any enrolled biometry.
std::uint32_t accessControlFor(bool biometry);

// A new key pair and the record that reaches it again.
struct NewKey {
    std::unique_ptr<platform::key_service::PrivateKey> key;
    KeyStorage storage;
    // The processor key a software key is sealed under; none for a processor key.
    std::unique_ptr<platform::key_processor::ProcessorKey> wrappingKey;

    // Signs with the key in hand. A sealed key asks its wrapping key's presence check first, as
    // opening its record would: a protected key is confirmed at its first use either way.
    Bytes sign(platform::key_service::SignatureAlgorithm algorithm, ByteView message) const;
};

// Whether the record's key, or the key it is wrapped under, is inside a TPM.
bool reachesTpm(const KeyStorage& storage);
// Whether the card's records reach any key inside a TPM: such a card gets no new soft keys.
bool holdsTpmKeys(const StoredKeyMap& card);
// The same of the card's configuration data, read without decoding it into a map; throws the
// decoder's errors.
bool holdsTpmKeys(const std::optional<Bytes>& configurationData);

// A key pair of the type for a card (that holds TPM keys or not): made inside the key processor
// for the "-ne" types, else a software key wrapped under a new processor-held key.
NewKey generateKey(KeyType type, bool biometry, bool cardHoldsTpmKeys);

// The record of a processor key.
BoundKey makeBoundKey(const platform::key_processor::ProcessorKey& key, bool biometry);

// Wraps a software private key under a new processor-held P-256 wrapping key.
SealedKey makeSealedKey(const platform::key_service::SoftwareKey& key, bool biometry,
                        bool cardHoldsTpmKeys);

}  // namespace keyloft::keys
