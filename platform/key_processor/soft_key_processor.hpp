#pragma once

#include <filesystem>
#include <optional>

#include "platform/key_processor/key_processor.hpp"

namespace keyloft::platform::key_processor {

// Keys sealed with AES-256-GCM under a device key kept in the data folder; the object identifier
// is the header (bound as additional data), a 12-byte nonce, the sealed private scalar and the tag.
// Protects keys at rest by the data folder's permissions only.
class SoftKeyProcessor : public KeyProcessor {
  public:
    SoftKeyProcessor(std::filesystem::path deviceKeyFile, PresenceGate& gate)
        : deviceKeyFile_(std::move(deviceKeyFile)), gate_(gate) {}

    std::string description() override { return "software"; }
    std::unique_ptr<ProcessorKey> createKey(int sizeInBits, std::uint32_t accessControl) override;
    std::unique_ptr<ProcessorKey> rebuildKey(
        ByteView objectIdentifier, std::shared_ptr<AuthenticationContext> context) override;

  private:
    const crypto::SecretBytes& deviceKey();

    std::filesystem::path deviceKeyFile_;
    PresenceGate& gate_;
    std::optional<crypto::SecretBytes> deviceKey_;
};

}  // namespace keyloft::platform::key_processor
