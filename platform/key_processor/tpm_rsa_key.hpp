#pragma once

#include <memory>

#include "platform/key_processor/key_processor.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_processor/tpm_connection.hpp"

namespace keyloft::platform::key_processor {

// A handle to an RSA key inside the TPM (public exponent 65537). Signatures are encoded here
// (PKCS#1 v1.5, or PSS with the caller's salt length, which TPMs would each choose their own way)
// and made by the TPM's raw private operation; OAEP decryption happens wholly inside the TPM. Both
// cross the bus encrypted. Presence is asked before every private operation as for EC keys.
std::unique_ptr<ProcessorKey> makeTpmRsaKey(std::shared_ptr<TpmConnection> connection, TpmKey key,
                                            const ObjectIdentifierHeader& header,
                                            std::shared_ptr<AuthenticationContext> context,
                                            PresenceGate& gate);

}  // namespace keyloft::platform::key_processor
