#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.hpp"
#include "base/key_types.hpp"

namespace keyloft::platform::certificate_service {

// A parsed X.509 certificate.
class Certificate {
  public:
    using TimePoint = std::chrono::system_clock::time_point;

    // Nothing when the bytes are not exactly one DER certificate.
    static std::optional<Certificate> parse(ByteView der);

    // SHA-1 of the subjectPublicKey BIT STRING contents; nothing when it cannot be read.
    std::optional<Bytes> publicKeyHash() const;
    // Key type, size and external representation of the public key; nothing for other key kinds.
    std::optional<PublicKeyAttributes> publicKey() const;
    // The subject's common name; nothing when it has none.
    std::optional<std::string> commonName() const;
    // E-mail addresses: subject emailAddress attributes, then rfc822Name alternative names.
    std::vector<std::string> emailAddresses() const;
    std::optional<TimePoint> notBefore() const;
    std::optional<TimePoint> notAfter() const;
    bool isValidAt(TimePoint instant) const;

  private:
    struct Handle;
    explicit Certificate(std::shared_ptr<Handle> handle) : handle_(std::move(handle)) {}
    std::shared_ptr<Handle> handle_;
};

}  // namespace keyloft::platform::certificate_service
