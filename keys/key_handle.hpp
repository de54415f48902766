#pragma once

#include <memory>
#include <string>
#include <variant>

#include "keyloft/bytes.hpp"
#include "platform/bastion/key_processor.hpp"
#include "platform/keyservice/software_key.hpp"

namespace keyloft::keys {

// A private key reached through its record: inside the key processor, or a software key that
// lives in memory for the current command only.
class KeyHandle {
  public:
    explicit KeyHandle(platform::SoftwareKey key) : key_(std::move(key)) {}
    explicit KeyHandle(std::unique_ptr<platform::ProcessorKey> key) : key_(std::move(key)) {}

    std::string keyType() const;
    platform::PublicKeyAttributes publicKeyAttributes() const;
    // The application label: SHA-1 of the public key's external representation.
    Bytes applicationLabel() const;
    Bytes sign(platform::SignatureAlgorithm algorithm, ByteView message) const;

    const platform::SoftwareKey* softwareKey() const {
        return std::get_if<platform::SoftwareKey>(&key_);
    }
    const platform::ProcessorKey* processorKey() const;

  private:
    std::variant<platform::SoftwareKey, std::unique_ptr<platform::ProcessorKey>> key_;
};

}  // namespace keyloft::keys
