#pragma once

#include "base/bytes.hpp"
#include "platform/token_store/token_items.hpp"
#include "platform/token_store/token_store.hpp"
#include "x509/certificate_reader.hpp"

namespace keyloft::card {

// The 20-byte public-key hash of a DER certificate. Throws "Failed to parse certificate from data"
// or "Failed to retrieve public key hash".
Bytes certificatePublicKeyHash(ByteView certificate);
// The same for a certificate already read.
Bytes publicKeyHashOf(const x509::CertificateView& certificate);

// Certificate items match by the hash of their certificate, key items by their identity key's
// hash (none when the certificate gives no key); a certificate item's certificate that cannot be
// read fails the test instead of answering no.
bool itemMatchesHash(const platform::token_store::TokenItem& item, ByteView hash);

// The certificate item of the identity with the hash, or the list's end.
platform::token_store::TokenItems::const_iterator findCertificateItem(
    const platform::token_store::TokenItems& items, ByteView hash);

}  // namespace keyloft::card
