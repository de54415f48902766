#pragma once

#include <optional>
#include <string>

#include "keys/stored_key_records.hpp"
#include "platform/token_store/token_store.hpp"
#include "x509/certificate_reader.hpp"

// The card's changes: identities added or removed, their items and stored-key records together.
// A command makes them inside the token's writeCommittingEvenOnThrow.
namespace keyloft::card {

using platform::token_store::Token;

// The items of a certificate, unlabelled: nothing when the certificate cannot be read, and for a
// key item, when it carries no key the card knows (see identityKeyOf).
std::optional<platform::token_store::CertificateItem> makeCertificateItem(ByteView certificate,
                                                                          ByteView objectID);
std::optional<platform::token_store::KeyItem> makeKeyItem(ByteView certificate, ByteView objectID);

// Makes the certificate item and the key item of an identity, labelled, with the key's capability
// flags; throws the tool's item-creation messages.
struct IdentityItems {
    platform::token_store::CertificateItem certificate;
    platform::token_store::KeyItem key;
};
IdentityItems makeIdentityItems(ByteView certificate, ByteView hash, const std::string& label);
// The same for a certificate already read (its DER given too), which is not read again.
IdentityItems makeIdentityItems(const x509::CertificateView& read, ByteView certificate,
                                ByteView hash, const std::string& label);

// Identities added by one command: the stored-key records are read once and written once, and the
// new items are appended in one go, certificate item then key item for each identity.
class IdentityAdditions {
  public:
    // Throws the decoder's errors for damaged configuration data.
    explicit IdentityAdditions(const Token& token);
    // The same, for a card whose data was read (and checked) earlier: while the data is still
    // that, its records are decoded only when asked for.
    IdentityAdditions(const Token& token, const std::optional<Bytes>& earlierData);

    // The card's records with the additions so far.
    const keys::StoredKeyMap& records() const;

    // Whether the card, or an addition, already holds a record for the hash.
    bool holds(const Bytes& hash) const { return records().contains(hash); }
    void add(const Bytes& hash, keys::KeyStorage storage, IdentityItems items);
    // Writes the records, then the items; nothing when nothing was added. The records are added
    // to the stored data in place while it has room, so that this costs what was added.
    void write();

  private:
    const Token& token_;
    std::optional<Bytes> data_;  // as stored, without the additions not yet written
    mutable std::optional<keys::StoredKeyMap> records_;
    keys::StoredKeyMap added_;
    platform::token_store::TokenItems items_;
};

// Removes every item of the hash from the published list. A certificate that cannot be read fails
// the removal, and the list stays as it was.
void removeIdentityItems(const Token& token, ByteView hash);

// Removes the hash's stored-key record and stores the re-encoded records.
void removeKeyRecord(const Token& token, ByteView hash);

// Replaces the certificate item of the hash with one for the certificate, without a label (the
// identity keeps its key item's), appended after the rest of the list; false when the card holds
// no certificate of the hash. Throws "Failed to create token certificate" when no item can be made
// of the certificate.
bool replaceCertificateItem(const Token& token, ByteView certificate, ByteView hash);

// Empties the card: no stored-key records, no items.
void removeAllIdentities(const Token& token);

}  // namespace keyloft::card
