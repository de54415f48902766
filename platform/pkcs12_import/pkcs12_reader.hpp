#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "base/bytes.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::platform::pkcs12_import {

struct ImportedIdentity {
    Bytes certificate;  // DER
    key_service::SoftwareKey key;
};

// The identities of a PKCS#12 file in file order: one per private key (key bags and shrouded key
// bags, nested contents included), paired with its certificate by localKeyId, else by public key.
// A key without a certificate is no identity. Nothing when the file is not PKCS#12 or the password
// does not verify its MAC. Throws PlatformError for a key the card cannot hold.
std::optional<std::vector<ImportedIdentity>> readPkcs12Identities(ByteView file,
                                                                  std::string_view password);

}  // namespace keyloft::platform::pkcs12_import
