#include "platform/key_processor/tpm_connection.hpp"

#include <tss2/tss2_rc.h>
#include <tss2/tss2_tctildr.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/error.hpp"
#include "platform/os/log.hpp"

namespace keyloft::platform::key_processor {
namespace {

void check(TSS2_RC rc, const std::string& what) {
    if (rc != TSS2_RC_SUCCESS) {
        throw PlatformError("Key processor: the TPM could not " + what + ": " + Tss2_RC_Decode(rc));
    }
}

// Frees what ESAPI allocated for the caller; secrets are wiped by the caller first.
struct EsysFree {
    void operator()(void* data) const noexcept { Esys_Free(data); }
};
template <class T>
using EsysOut = std::unique_ptr<T, EsysFree>;

// The library logs its failures on stderr; ours are reported as errors instead. A TSS2_LOG the
// user set is kept, for debugging.
void quietLibraryLog() {
    static std::once_flag once;
    std::call_once(once, [] { setenv("TSS2_LOG", "all+NONE", 0); });
}

// The owner hierarchy's ECC P-256 storage key of the usual provisioning template, so that every
// connection to the same TPM makes the same key again.
TPM2B_PUBLIC primaryTemplate() {
    TPM2B_PUBLIC primary{};
    auto& area = primary.publicArea;
    area.type = TPM2_ALG_ECC;
    area.nameAlg = TPM2_ALG_SHA256;
    area.objectAttributes = TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT | TPMA_OBJECT_FIXEDTPM |
                            TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                            TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_NODA;
    auto& ecc = area.parameters.eccDetail;
    ecc.symmetric.algorithm = TPM2_ALG_AES;
    ecc.symmetric.keyBits.aes = 128;
    ecc.symmetric.mode.aes = TPM2_ALG_CFB;
    ecc.scheme.scheme = TPM2_ALG_NULL;
    ecc.curveID = TPM2_ECC_NIST_P256;
    ecc.kdf.scheme = TPM2_ALG_NULL;
    area.unique.ecc.x.size = 32;
    area.unique.ecc.y.size = 32;
    return primary;
}

template <class Sized>
void copyInto(Sized& target, ByteView bytes) {
    if (bytes.size() > sizeof target.buffer) throw PlatformError("Key processor: value too long");
    target.size = static_cast<UINT16>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), target.buffer);
}

}  // namespace

void TpmConnection::TctiFinalize::operator()(TSS2_TCTI_CONTEXT* tcti) const noexcept {
    Tss2_TctiLdr_Finalize(&tcti);
}

std::shared_ptr<TpmConnection> TpmConnection::open(const std::string& tcti) {
    quietLibraryLog();
    std::shared_ptr<TpmConnection> connection(new TpmConnection);
    TSS2_TCTI_CONTEXT* rawTcti = nullptr;
    check(Tss2_TctiLdr_Initialize(tcti.c_str(), &rawTcti), "be reached through '" + tcti + "'");
    connection->tcti_.reset(rawTcti);
    ESYS_CONTEXT* rawEsys = nullptr;
    check(Esys_Initialize(&rawEsys, rawTcti, nullptr), "be reached through '" + tcti + "'");
    connection->esys_.reset(rawEsys);

    const TPM2B_SENSITIVE_CREATE noSensitive{};
    const auto primary = primaryTemplate();
    const TPM2B_DATA noOutsideInfo{};
    const TPML_PCR_SELECTION noPcrs{};
    check(Esys_CreatePrimary(rawEsys, ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                             ESYS_TR_NONE, &noSensitive, &primary, &noOutsideInfo, &noPcrs,
                             &connection->primary_, nullptr, nullptr, nullptr, nullptr),
          "make its storage key (is the owner hierarchy protected by a password?)");

    // Salted with the primary key: the session key is known to the TPM and to us only.
    const TPMT_SYM_DEF aes{
        .algorithm = TPM2_ALG_AES, .keyBits = {.aes = 128}, .mode = {.aes = TPM2_ALG_CFB}};
    auto rc = Esys_StartAuthSession(rawEsys, connection->primary_, ESYS_TR_NONE, ESYS_TR_NONE,
                                    ESYS_TR_NONE, ESYS_TR_NONE, nullptr, TPM2_SE_HMAC, &aes,
                                    TPM2_ALG_SHA256, &connection->session_);
    if (rc == TSS2_ESYS_RC_GENERAL_FAILURE) {
        // The salt is computed with the process's OpenSSL, which a host program may have handed
        // to an engine that cannot do it (openssl -engine pkcs11 does, for every EC key). An
        // unsalted session still authorizes; its parameter encryption would hide nothing.
        os::logError("TPM session without salt: the salt could not be computed in this process");
        const TPMT_SYM_DEF none{.algorithm = TPM2_ALG_NULL};
        rc = Esys_StartAuthSession(rawEsys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                   ESYS_TR_NONE, nullptr, TPM2_SE_HMAC, &none, TPM2_ALG_SHA256,
                                   &connection->session_);
        connection->encrypting_ = false;
    }
    check(rc, "start a session");
    return connection;
}

TpmConnection::~TpmConnection() {
    if (session_ != ESYS_TR_NONE) flush(session_);
    if (primary_ != ESYS_TR_NONE) flush(primary_);
}

void TpmConnection::flush(ESYS_TR handle) noexcept {
    const std::lock_guard lock(mutex_);
    // Nothing to do when it fails: the resource manager drops the connection's objects anyway.
    Esys_FlushContext(esys_.get(), handle);
}

void TpmConnection::useSession(TPMA_SESSION attributes) {
    if (!encrypting_) attributes &= ~(TPMA_SESSION_DECRYPT | TPMA_SESSION_ENCRYPT);
    check(Esys_TRSess_SetAttributes(esys_.get(), session_,
                                    TPMA_SESSION_CONTINUESESSION | attributes, 0xff),
          "set up its session");
}

TpmKeyBlobs TpmConnection::create(const TPM2B_PUBLIC& keyTemplate,
                                  const crypto::SecretBytes& authValue) {
    const std::lock_guard lock(mutex_);
    TPM2B_SENSITIVE_CREATE sensitive{};
    copyInto(sensitive.sensitive.userAuth, authValue);
    const TPM2B_DATA noOutsideInfo{};
    const TPML_PCR_SELECTION noPcrs{};
    TPM2B_PRIVATE* rawPrivate = nullptr;
    TPM2B_PUBLIC* rawPublic = nullptr;
    useSession(TPMA_SESSION_DECRYPT);
    const auto rc = Esys_Create(esys_.get(), primary_, session_, ESYS_TR_NONE, ESYS_TR_NONE,
                                &sensitive, &keyTemplate, &noOutsideInfo, &noPcrs, &rawPrivate,
                                &rawPublic, nullptr, nullptr, nullptr);
    crypto::wipe(&sensitive, sizeof sensitive);
    const EsysOut<TPM2B_PRIVATE> privateArea(rawPrivate);
    const EsysOut<TPM2B_PUBLIC> publicArea(rawPublic);
    check(rc, "make the key");
    return {*publicArea, *privateArea};
}

std::unique_ptr<TpmConnection::LoadedKey> TpmConnection::load(
    const TpmKeyBlobs& blobs, const crypto::SecretBytes& authValue) {
    const std::lock_guard lock(mutex_);
    ESYS_TR handle = ESYS_TR_NONE;
    useSession(0);
    check(Esys_Load(esys_.get(), primary_, session_, ESYS_TR_NONE, ESYS_TR_NONE, &blobs.privateArea,
                    &blobs.publicArea, &handle),
          "load the key (it was made by another TPM or has been changed)");
    TPM2B_AUTH auth{};
    copyInto(auth, authValue);
    const auto rc = Esys_TR_SetAuth(esys_.get(), handle, &auth);
    crypto::wipe(&auth, sizeof auth);
    if (rc != TSS2_RC_SUCCESS) Esys_FlushContext(esys_.get(), handle);
    check(rc, "take the key's authorization");
    return std::make_unique<LoadedKey>(shared_from_this(), handle);
}

std::pair<Bytes, Bytes> TpmConnection::signEcdsa(const LoadedKey& key, ByteView digest,
                                                 TPMI_ALG_HASH hash) {
    const std::lock_guard lock(mutex_);
    TPM2B_DIGEST input{};
    copyInto(input, digest);
    const TPMT_SIG_SCHEME scheme{.scheme = TPM2_ALG_ECDSA, .details = {.ecdsa = {.hashAlg = hash}}};
    // A null ticket: the key is unrestricted, so the TPM signs digests it did not make.
    const TPMT_TK_HASHCHECK noTicket{.tag = TPM2_ST_HASHCHECK, .hierarchy = TPM2_RH_NULL};
    TPMT_SIGNATURE* rawSignature = nullptr;
    useSession(0);
    check(Esys_Sign(esys_.get(), key.handle(), session_, ESYS_TR_NONE, ESYS_TR_NONE, &input,
                    &scheme, &noTicket, &rawSignature),
          "sign (the key may have been changed)");
    const EsysOut<TPMT_SIGNATURE> signature(rawSignature);
    const auto& r = signature->signature.ecdsa.signatureR;
    const auto& s = signature->signature.ecdsa.signatureS;
    return {Bytes(r.buffer, r.buffer + r.size), Bytes(s.buffer, s.buffer + s.size)};
}

crypto::SecretBytes TpmConnection::ecdhZGen(const LoadedKey& key, ByteView x, ByteView y) {
    const std::lock_guard lock(mutex_);
    TPM2B_ECC_POINT point{};
    copyInto(point.point.x, x);
    copyInto(point.point.y, y);
    TPM2B_ECC_POINT* rawShared = nullptr;
    useSession(TPMA_SESSION_ENCRYPT);
    const auto rc = Esys_ECDH_ZGen(esys_.get(), key.handle(), session_, ESYS_TR_NONE, ESYS_TR_NONE,
                                   &point, &rawShared);
    const EsysOut<TPM2B_ECC_POINT> shared(rawShared);
    check(rc,
          "agree on a secret (the peer's point is not on the key's curve, or the key has "
          "been changed)");
    const auto& sharedX = shared->point.x;
    auto secret = crypto::secretOf({sharedX.buffer, sharedX.size});
    crypto::wipe(shared.get(), sizeof *shared);
    return secret;
}

}  // namespace keyloft::platform::key_processor
