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
    // ECDH with a peer's uncompressed point: the shared x-coordinate.
    platform::SecretBytes agree(ByteView peerPoint) const;
    // RSA keys, which are always software keys; PlatformError for a processor key.
    Bytes signRsaPss(ByteView digest, const platform::RsaPssParameters& parameters) const;
    platform::SecretBytes decryptRsaOaep(ByteView ciphertext,
                                         const platform::RsaOaepParameters& parameters) const;

    const platform::SoftwareKey* softwareKey() const {
        return std::get_if<platform::SoftwareKey>(&key_);
    }
    const platform::ProcessorKey* processorKey() const;

  private:
    const platform::SoftwareKey& rsaKey() const;

    std::variant<platform::SoftwareKey, std::unique_ptr<platform::ProcessorKey>> key_;
};

}  // namespace keyloft::keys
