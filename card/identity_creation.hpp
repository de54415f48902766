#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "card/identity_writes.hpp"
#include "keys/key_type.hpp"
#include "keys/stored_key_records.hpp"
#include "x509/name.hpp"

namespace keyloft::card {

// What a new identity is to be.
struct IdentityRequest {
    KeyType type;
    bool biometry = false;
    // The label of its items; the hash in hex when none is given.
    std::optional<std::string> label;
    // The certificate's subject; the label alone, as common name, when none is given.
    std::optional<x509::Name> subject;
    // How long the certificate is valid from now; the default validity when none is given.
    std::optional<std::chrono::seconds> lifetime;
};

// A new identity, made and not yet written: its key's hash, stored-key record and items, and the
// card's data it was made for.
struct NewIdentity {
    Bytes hash;
    keys::KeyStorage storage;
    IdentityItems items;
    std::optional<Bytes> cardData;
};

// Makes the key (in the key processor of the card's keys) and its self-signed certificate, signed
// by the new key itself, writing nothing: this is the slow part, kept out of the card's write
// transaction. Throws the tool's key and certificate errors, and the decoder's errors for damaged
// configuration data.
NewIdentity createIdentity(const Token& token, const IdentityRequest& request);

// Adds the identity to the card: its record, then its items. Inside the token's write
// transaction; the card's data is decoded again only when it changed since the identity was made.
void addIdentity(const Token& token, NewIdentity identity);

// Gives every item of the identity with the hash the label; false when the card holds none.
bool relabelIdentity(const Token& token, ByteView hash, const std::string& label);

}  // namespace keyloft::card
