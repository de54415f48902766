#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <tss2/tss2_tpm2_types.h>

#include "platform/key_processor/key_processor.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_processor/tpm_connection.hpp"

namespace keyloft::platform::key_processor {

// PlatformError unless the curves a TPM lists include the one of a key of the size.
void requireCurve(const std::vector<TPM2_ECC_CURVE>& curves, int sizeInBits);

// PlatformError unless TPM2_TestParms answered success for RSA keys of the size.
void requireRsaKeySize(TSS2_RC testResult, int sizeInBits);

// An object identifier of this back end, read without the TPM.
struct TpmKeyIdentifier {
    ObjectIdentifierHeader header;
    TpmKeyBlobs blobs;
};
// PlatformError unless the identifier is one this back end writes: a key of a size and access
// control it makes, and blobs marshalled exactly as it marshals them from its own template.
TpmKeyIdentifier decodeTpmIdentifier(ByteView objectIdentifier);

// Keys made inside a TPM 2.0: unrestricted ECC keys for ECDSA and ECDH, and RSA keys for
// signatures and OAEP decryption, under the storage primary key. The object identifier is the
// header followed by the key's public and private blobs as the TPM marshals them; the private blob
// opens in this TPM only. The key's auth value is derived from the header, so a changed header
// makes the TPM refuse the key.
class TpmKeyProcessor : public KeyProcessor {
  public:
    // tcti: the TCTI configuration string of the TPM to use.
    TpmKeyProcessor(std::string tcti, PresenceGate& gate) : tcti_(std::move(tcti)), gate_(gate) {}

    std::string description() override;
    std::unique_ptr<ProcessorKey> createKey(int sizeInBits, std::uint32_t accessControl) override;
    std::unique_ptr<ProcessorKey> rebuildKey(
        ByteView objectIdentifier, std::shared_ptr<AuthenticationContext> context) override;

    // Connects now when not connected yet; PlatformError saying why when the TPM cannot be used.
    void connect();

  private:
    std::shared_ptr<TpmConnection> connection();
    std::unique_ptr<ProcessorKey> keyOf(std::shared_ptr<TpmConnection> tpm, TpmKey key,
                                        const ObjectIdentifierHeader& header,
                                        std::shared_ptr<AuthenticationContext> context);

    std::string tcti_;
    PresenceGate& gate_;
    std::mutex mutex_;
    std::shared_ptr<TpmConnection> connection_;
};

}  // namespace keyloft::platform::key_processor
