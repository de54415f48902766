#pragma once

#include <memory>

#include "base/bytes.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::platform::crypto {

// A digest fed in parts; copies carry the state computed so far.
class DigestStream {
  public:
    explicit DigestStream(DigestAlgorithm algorithm);
    DigestStream(const DigestStream& other);
    DigestStream& operator=(const DigestStream& other);
    DigestStream(DigestStream&&) noexcept;
    DigestStream& operator=(DigestStream&&) noexcept;
    ~DigestStream();

    DigestAlgorithm algorithm() const { return algorithm_; }
    void update(ByteView part);
    // The digest of everything given; the stream is spent afterwards. Throws PlatformError.
    Bytes finish();

  private:
    struct Context;
    DigestAlgorithm algorithm_;
    std::unique_ptr<Context> context_;
};

// Starts the crypto library now, so that its own exit-time cleanup is registered before anything
// that must run ahead of it. Throws PlatformError.
void startCryptoLibrary();

}  // namespace keyloft::platform::crypto
