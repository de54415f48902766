#pragma once

#include <filesystem>
#include <optional>

#include "platform/bastion/key_processor.hpp"

namespace keyloft::platform {

// Keys sealed with AES-256-GCM under a device key kept in the data folder; the object identifier
// is the header (bound as additional data), a 12-byte nonce, the sealed private scalar and the tag.
// Protects keys at rest by the data folder's permissions only.
class SoftKeyProcessor : public KeyProcessor {
  public:
    SoftKeyProcessor(std::filesystem::path deviceKeyFile, PresenceGate& gate)
        : deviceKeyFile_(std::move(deviceKeyFile)), gate_(gate) {}

    std::unique_ptr<ProcessorKey> createKey(int sizeInBits, std::uint32_t accessControl) override;
    std::unique_ptr<ProcessorKey> rebuildKey(
        ByteView objectIdentifier, std::shared_ptr<AuthenticationContext> context) override;

  private:
    const SecretBytes& deviceKey();

    std::filesystem::path deviceKeyFile_;
    PresenceGate& gate_;
    std::optional<SecretBytes> deviceKey_;
};

}  // namespace keyloft::platform
