#pragma once

#include "pkcs11/cryptoki.hpp"

// What the module tells applications about itself, its slot and its token.
namespace keyloft::pkcs11 {

CK_INFO moduleInfo();
CK_SLOT_INFO slotInfo();
CK_TOKEN_INFO tokenInfo(CK_ULONG sessionCount, CK_ULONG readWriteSessionCount);

}  // namespace keyloft::pkcs11
