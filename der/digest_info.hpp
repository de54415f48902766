#pragma once

#include "base/bytes.hpp"

namespace keyloft::der {

// DigestInfo ::= SEQUENCE { SEQUENCE { hash OID, NULL }, OCTET STRING digest }, the block that
// PKCS#1 v1.5 signatures pad; hashOid is the OID's content bytes.
Bytes encodeDigestInfo(ByteView hashOid, ByteView digest);

}  // namespace keyloft::der
