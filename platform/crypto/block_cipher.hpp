#pragma once

#include "base/bytes.hpp"

namespace keyloft::platform::crypto {

// Cipher codes of the one-shot service; they appear in messages.
enum class BlockCipher { tripleDes = 2, rc2 = 5 };

struct CipherResult {
    int status = 0;  // 0 success, else an error code of the cipher service
    Bytes output;
};

// CBC encryption with PKCS#7 padding. RC2 uses the key's length in bits as its effective length.
// A key or IV of a length the cipher does not take is refused with a non-zero status.
CipherResult encryptCbc(BlockCipher cipher, ByteView key, ByteView iv, ByteView plaintext);

}  // namespace keyloft::platform::crypto
