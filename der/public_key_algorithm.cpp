#include "der/public_key_algorithm.hpp"

#include <string>

#include "base/error.hpp"
#include "base/public_key_attributes.hpp"
#include "der/object_identifiers.hpp"

namespace keyloft::der {

Record publicKeyAlgorithm(std::string_view keyType, int sizeInBits) {
    if (keyType == keyTypeEC) {
        // 192-bit keys have no curve identifier here; naming another curve would mislabel them.
        const ByteView curve = curveOidForSize(sizeInBits);
        if (curve.empty()) {
            throw KeyloftError::generic("unsupported public key EC key size: " +
                                        std::to_string(sizeInBits));
        }
        return sequenceRecord({oidRecord(oid::idEcPublicKey), oidRecord(curve)});
    }
    if (keyType == keyTypeRSA) return sequenceRecord({oidRecord(oid::rsaEncryption), nullRecord()});
    throw KeyloftError::generic("unsupported public key type: " + std::string(keyType));
}

}  // namespace keyloft::der
