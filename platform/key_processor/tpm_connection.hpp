#pragma once

#include <tss2/tss2_esys.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/bytes.hpp"
#include "platform/crypto/secret.hpp"
#include "platform/key_processor/glib_log.hpp"

namespace keyloft::platform::key_processor {

// A key's two blobs as the TPM hands them out: the public area and the private area, which only
// the TPM that made it can open.
struct TpmKeyBlobs {
    TPM2B_PUBLIC publicArea{};
    TPM2B_PRIVATE privateArea{};
};

// What went wrong, as far as the user can act on it.
enum class TpmTrouble {
    other,
    lockout,      // dictionary-attack lockout
    busy,         // self-testing, yielded, rate-limited, or the resource manager asks to retry
    unreachable,  // the TCTI lost or never had the TPM
    noRoom,       // no memory left for another loaded object or session
    integrity,    // a blob that does not open under its parent: another TPM's, or a cleared one
    authFailed,   // an authorization the TPM refused, such as an owner hierarchy password
};
TpmTrouble troubleOf(TSS2_RC rc);

// A key as its blobs, loaded into the TPM by the connection when a command needs it. The
// identity tells it from every other key: keys of one identity carry the same blobs and auth value.
struct TpmKey {
    Bytes identity;
    TpmKeyBlobs blobs;
    crypto::SecretBytes authValue;
};

// One ESAPI connection to a TPM, with its storage key (the persistent one at 0x81000001 when the
// machine was provisioned with a fitting one, else the owner hierarchy's ECC P-256 primary of the
// usual template, made again on each connection), the ECC curves it has, and one salted HMAC
// session that every key command runs under; commands that carry secrets have them encrypted in
// that session. Where the host process cannot compute the salt, the session is unsalted and
// encrypts nothing. All calls are serialized: one connection serves every thread of the process.
//
// Keys are loaded on demand and only the last used stay loaded between commands: a resource
// manager lets each client hold a few loaded objects only (the kernel's three, the storage key
// among them), so a process with more keys than that would otherwise run out of room.
class TpmConnection {
  public:
    // How many keys stay loaded at most, least recently used flushed first.
    static constexpr std::size_t keptLoaded = 2;

    // Connects through a TCTI configuration string ("device:/dev/tpmrm0", "tabrmd",
    // "swtpm:host=127.0.0.1,port=2321", ...); PlatformError saying why when no TPM answers there.
    static std::shared_ptr<TpmConnection> open(const std::string& tcti);

    TpmConnection(const TpmConnection&) = delete;
    TpmConnection& operator=(const TpmConnection&) = delete;
    ~TpmConnection();

    // The ECC curves the TPM has, as it lists them.
    const std::vector<TPM2_ECC_CURVE>& curves() const { return curves_; }
    // The TPM's manufacturer as its four-letter vendor code ("IBM", "INTC", "STM", ...), trailing
    // blanks and zeros dropped; empty when the TPM does not tell.
    const std::string& manufacturer() const { return manufacturer_; }
    // Whether the storage key is the persistent one rather than a primary made by us.
    bool persistentStorageKey() const { return persistent_; }

    // A new key of the template under the primary key; the auth value travels encrypted.
    TpmKeyBlobs create(const TPM2B_PUBLIC& keyTemplate, const crypto::SecretBytes& authValue);
    // Loads the key now, so that blobs that do not open here are told at once: PlatformError
    // when they were made by another TPM or do not match each other.
    void load(const TpmKey& key);
    // ECDSA over a digest of the hash's size; r and s as the TPM returns them.
    std::pair<Bytes, Bytes> signEcdsa(const TpmKey& key, ByteView digest, TPMI_ALG_HASH hash);
    // The x-coordinate of the key's private scalar times the point; the answer travels encrypted.
    crypto::SecretBytes ecdhZGen(const TpmKey& key, ByteView x, ByteView y);
    // The RSA private-key operation on the input under the scheme: TPM2_ALG_NULL for the raw
    // operation (input as long as the modulus), TPM2_ALG_OAEP with its hash and label; input and
    // answer travel encrypted. PlatformError for input the key refuses.
    crypto::SecretBytes rsaDecrypt(const TpmKey& key, ByteView input,
                                   const TPMT_RSA_DECRYPT& scheme, ByteView label);
    // Whether the TPM makes RSA keys of the size: TPM2_TestParms' answer.
    TSS2_RC testRsaKeySize(int sizeInBits);

  private:
    struct EsysFinalize {
        void operator()(ESYS_CONTEXT* context) const noexcept { Esys_Finalize(&context); }
    };
    struct TctiFinalize {
        void operator()(TSS2_TCTI_CONTEXT* tcti) const noexcept;
    };

    struct LoadedKey {
        Bytes identity;
        ESYS_TR handle;
    };
    // One command's hold on the connection: its lock, and the TCTI's log kept off the terminal.
    class Turn {
      public:
        explicit Turn(TpmConnection& connection)
            : lock_(connection.mutex_), log_(connection.glib_) {}

      private:
        std::lock_guard<std::mutex> lock_;
        GlibLog::ToSystemLog log_;
    };

    TpmConnection() = default;
    void useSession(TPMA_SESSION attributes);
    void flush(ESYS_TR handle) noexcept;
    // The key's handle, loaded now unless it still is; the caller holds the lock.
    ESYS_TR loaded(const TpmKey& key);
    void flushLeastRecentlyUsed() noexcept;
    // The command's code; when the TPM or the resource manager had no room for an object, the
    // loaded keys make room and the command runs again, once.
    template <class Command>
    TSS2_RC withRoom(const Command& command);

    std::mutex mutex_;
    const GlibLog* glib_ = nullptr;  // when the TCTI logs through GLib
    // Declared before the ESAPI context, so that it is finalized after it.
    std::unique_ptr<TSS2_TCTI_CONTEXT, TctiFinalize> tcti_;
    std::unique_ptr<ESYS_CONTEXT, EsysFinalize> esys_;
    void readCurves();
    void readManufacturer();
    void useStorageKey();

    ESYS_TR primary_ = ESYS_TR_NONE;
    bool persistent_ = false;
    ESYS_TR session_ = ESYS_TR_NONE;
    bool encrypting_ = true;
    std::vector<TPM2_ECC_CURVE> curves_;
    std::string manufacturer_;
    std::vector<LoadedKey> loaded_;  // most recently used first
};

}  // namespace keyloft::platform::key_processor
