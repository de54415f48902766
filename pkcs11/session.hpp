#pragma once

#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "keys/stored_key_records.hpp"

#include "pkcs11/operations.hpp"

namespace keyloft::pkcs11 {

// A private key the session reached, kept while its stored key stays the same.
struct SessionKey {
    keys::KeyStorage storage;
    std::shared_ptr<const platform::key_service::PrivateKey> handle;
};

// One application session and the operations it has started.
struct Session {
    CK_FLAGS flags = CKF_SERIAL_SESSION;
    std::optional<std::vector<CK_OBJECT_HANDLE>> searchResults;
    std::size_t searchPosition = 0;
    std::optional<SignOperation> signing;
    std::optional<DecryptOperation> decrypting;
    std::map<Bytes, SessionKey> keys;  // by public-key hash
};

}  // namespace keyloft::pkcs11
