#pragma once

#include <optional>
#include <vector>

#include "pkcs11/operations.hpp"

namespace keyloft::pkcs11 {

// One application session and the operations it has started.
struct Session {
    CK_FLAGS flags = CKF_SERIAL_SESSION;
    std::optional<std::vector<CK_OBJECT_HANDLE>> searchResults;
    std::size_t searchPosition = 0;
    std::optional<SignOperation> signing;
    std::optional<DecryptOperation> decrypting;
};

}  // namespace keyloft::pkcs11
