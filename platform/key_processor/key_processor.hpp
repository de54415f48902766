#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/key_service/private_key.hpp"

// The key processor: keys made inside it never leave it; they are reached again through an opaque
// object identifier, which names the back end that made it.
namespace keyloft::platform::key_processor {

inline constexpr std::uint32_t accessControlPrivateKeyUsage = 0x40000000;
inline constexpr std::uint32_t accessControlBiometryAny = 0x2;

// Private-key usage, optionally with biometry: the only words a processor can honour.
inline bool isSupportedAccessControl(std::uint32_t word) {
    return word == accessControlPrivateKeyUsage ||
           word == (accessControlPrivateKeyUsage | accessControlBiometryAny);
}

// A processor key's size names its algorithm too: EC keys are 256 or 384 bits, RSA keys (public
// exponent 65537) 2048 or 3072; the sizes never meet, so an object identifier records the size
// only.
inline bool isRsaKeySize(int sizeInBits) {
    return sizeInBits == 2048 || sizeInBits == 3072;
}

// Refuses, with PlatformError, a key no processor makes: sizes other than those above, and
// access-control words it could not honour.
void checkNewKeyRequest(int sizeInBits, std::uint32_t accessControl);

// One user-authentication session: once presence is confirmed, it holds for every use under it
// (a command), or, given a grace period, for the uses in that period after the confirmation (a
// program's uses of one key through the PKCS#11 module). Safe to share between threads.
class AuthenticationContext {
  public:
    using Clock = std::chrono::steady_clock;

    AuthenticationContext() = default;
    explicit AuthenticationContext(Clock::duration grace) : grace_(grace) {}

    bool presenceConfirmed() const {
        const auto at = confirmedAt_.load();
        if (at == notConfirmed) return false;
        return !grace_ || Clock::now().time_since_epoch().count() - at < grace_->count();
    }
    void confirmPresence() { confirmedAt_ = Clock::now().time_since_epoch().count(); }
    std::optional<Clock::duration> grace() const { return grace_; }

  private:
    static constexpr Clock::rep notConfirmed = std::numeric_limits<Clock::rep>::min();
    std::optional<Clock::duration> grace_;
    std::atomic<Clock::rep> confirmedAt_{notConfirmed};
};

// Asks the user to confirm presence; throws PlatformError when it cannot be confirmed.
class PresenceGate {
  public:
    virtual ~PresenceGate() = default;
    virtual void confirm() = 0;
};

// Asks the gate before a private-key use when the word demands biometry and the context has not
// been confirmed yet; a confirmation counts for the rest of the context.
inline void confirmPresenceFor(std::uint32_t accessControl, AuthenticationContext& context,
                               PresenceGate& gate) {
    if ((accessControl & accessControlBiometryAny) != 0 && !context.presenceConfirmed()) {
        gate.confirm();
        context.confirmPresence();
    }
}

// A handle to a key inside the processor. Private-key operations ask the presence gate first when
// the key's access control demands biometry and its context has not been confirmed yet.
// The operations of the other key type refuse.
class ProcessorKey : public key_service::PrivateKey {
  public:
    virtual const Bytes& objectIdentifier() const = 0;
    virtual std::uint32_t accessControl() const = 0;
    // The check every private-key operation makes first: presence, when the key demands biometry
    // and its context has not been confirmed yet. Asked alone for a key wrapped under this one
    // and used while still in hand, never unwrapped.
    virtual void authorize() const = 0;
};

class KeyProcessor {
  public:
    virtual ~KeyProcessor() = default;
    // What holds the keys, for people: "software", or "TPM 2.0" and the TPM's manufacturer.
    virtual std::string description() = 0;
    // A P-256, P-384, RSA-2048 or RSA-3072 key under the access-control word: private-key usage,
    // optionally with biometry; other words are refused, since the processor could not honour them.
    virtual std::unique_ptr<ProcessorKey> createKey(int sizeInBits,
                                                    std::uint32_t accessControl) = 0;
    // Rebuilds a handle; without a context the handle makes its own.
    virtual std::unique_ptr<ProcessorKey> rebuildKey(
        ByteView objectIdentifier, std::shared_ptr<AuthenticationContext> context) = 0;
};

// The processor that makes new keys on this machine: the TPM whenever one is usable, else soft.
// A card that already holds TPM keys never gets soft ones silently: it gets the TPM or a
// PlatformError saying why not. KEYLOFT_KEY_PROCESSOR=soft or =tpm forces the choice.
KeyProcessor& defaultKeyProcessor(bool cardHoldsTpmKeys);
// The description of the processor that makes new keys here (as defaultKeyProcessor(false)), or
// why there is none.
std::string describeDefaultKeyProcessor();
// Whether the identifier names a key of the TPM back end.
bool isTpmKey(ByteView objectIdentifier);
// The processor named by an object identifier; PlatformError when no back end here knows it.
KeyProcessor& keyProcessorFor(ByteView objectIdentifier);

}  // namespace keyloft::platform::key_processor
