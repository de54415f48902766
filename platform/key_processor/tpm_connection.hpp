#pragma once

#include <tss2/tss2_esys.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/bytes.hpp"
#include "platform/crypto/secret.hpp"

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

// One ESAPI connection to a TPM, with its storage key (the persistent one at 0x81000001 when the
// machine was provisioned with a fitting one, else the owner hierarchy's ECC P-256 primary of the
// usual template, made again on each connection), the ECC curves it has, and one salted HMAC
// session that every key command runs under; commands that carry secrets have them encrypted in
// that session. Where the host process cannot compute the salt, the session is unsalted and
// encrypts nothing. All calls are serialized: one connection serves every thread of the process.
class TpmConnection : public std::enable_shared_from_this<TpmConnection> {
  public:
    // A key loaded under the primary key, flushed from the TPM when the handle goes.
    class LoadedKey {
      public:
        LoadedKey(std::shared_ptr<TpmConnection> connection, ESYS_TR handle)
            : connection_(std::move(connection)), handle_(handle) {}
        LoadedKey(const LoadedKey&) = delete;
        LoadedKey& operator=(const LoadedKey&) = delete;
        ~LoadedKey() { connection_->flush(handle_); }

        TpmConnection& connection() const { return *connection_; }
        ESYS_TR handle() const { return handle_; }

      private:
        std::shared_ptr<TpmConnection> connection_;
        ESYS_TR handle_;
    };

    // Connects through a TCTI configuration string ("device:/dev/tpmrm0", "tabrmd",
    // "swtpm:host=127.0.0.1,port=2321", ...); PlatformError saying why when no TPM answers there.
    static std::shared_ptr<TpmConnection> open(const std::string& tcti);

    TpmConnection(const TpmConnection&) = delete;
    TpmConnection& operator=(const TpmConnection&) = delete;
    ~TpmConnection();

    // The ECC curves the TPM has, as it lists them.
    const std::vector<TPM2_ECC_CURVE>& curves() const { return curves_; }
    // Whether the storage key is the persistent one rather than a primary made by us.
    bool persistentStorageKey() const { return persistent_; }

    // A new key of the template under the primary key; the auth value travels encrypted.
    TpmKeyBlobs create(const TPM2B_PUBLIC& keyTemplate, const crypto::SecretBytes& authValue);
    // PlatformError when the blobs were made by another TPM or do not match each other.
    std::unique_ptr<LoadedKey> load(const TpmKeyBlobs& blobs, const crypto::SecretBytes& authValue);
    // ECDSA over a digest of the hash's size; r and s as the TPM returns them.
    std::pair<Bytes, Bytes> signEcdsa(const LoadedKey& key, ByteView digest, TPMI_ALG_HASH hash);
    // The x-coordinate of the key's private scalar times the point; the answer travels encrypted.
    crypto::SecretBytes ecdhZGen(const LoadedKey& key, ByteView x, ByteView y);

  private:
    struct EsysFinalize {
        void operator()(ESYS_CONTEXT* context) const noexcept { Esys_Finalize(&context); }
    };
    struct TctiFinalize {
        void operator()(TSS2_TCTI_CONTEXT* tcti) const noexcept;
    };

    TpmConnection() = default;
    void useSession(TPMA_SESSION attributes);
    void flush(ESYS_TR handle) noexcept;

    std::mutex mutex_;
    // Declared before the ESAPI context, so that it is finalized after it.
    std::unique_ptr<TSS2_TCTI_CONTEXT, TctiFinalize> tcti_;
    std::unique_ptr<ESYS_CONTEXT, EsysFinalize> esys_;
    void readCurves();
    void useStorageKey();

    ESYS_TR primary_ = ESYS_TR_NONE;
    bool persistent_ = false;
    ESYS_TR session_ = ESYS_TR_NONE;
    bool encrypting_ = true;
    std::vector<TPM2_ECC_CURVE> curves_;
};

}  // namespace keyloft::platform::key_processor
