#include "der/digest_info.hpp"

#include "der/object_identifiers.hpp"
#include "der/record.hpp"

namespace keyloft::der {

Bytes encodeDigestInfo(ByteView hashOid, ByteView digest) {
    return encode(sequenceRecord(
        {sequenceRecord({oidRecord(hashOid), nullRecord()}), octetStringRecord(digest)}));
}

}  // namespace keyloft::der
