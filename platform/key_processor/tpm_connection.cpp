#include "platform/key_processor/tpm_connection.hpp"

#include <tss2/tss2_rc.h>
#include <tss2/tss2_tctildr.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/os/log.hpp"

namespace keyloft::platform::key_processor {
namespace {

// Where provisioning tools put the owner's storage key.
constexpr TPM2_HANDLE persistentStorageKeyHandle = 0x81000001;

// The reason the user reads: what to do about the troubles one can act on, the decoded code
// otherwise. integrityReason says what a blob that does not open means for this command.
std::string reasonFor(TSS2_RC rc, const char* integrityReason) {
    std::string code = Tss2_RC_Decode(rc);
    switch (troubleOf(rc)) {
        case TpmTrouble::lockout:
            return "the TPM is in dictionary-attack lockout; it accepts authorizations again "
                   "once its recovery time has passed, or when its owner resets the lockout (" +
                   code + ")";
        case TpmTrouble::busy:
            return "the TPM is busy (testing itself, or serving other programs); try again (" +
                   code + ")";
        case TpmTrouble::unreachable:
            return "the TPM does not answer (" + code + ")";
        case TpmTrouble::noRoom:
            return "the TPM has no room for another loaded key or session (" + code + ")";
        case TpmTrouble::integrity:
            if (integrityReason != nullptr) return std::string(integrityReason) + " (" + code + ")";
            break;
        case TpmTrouble::authFailed:
        case TpmTrouble::other:
            break;
    }
    return code;
}

void check(TSS2_RC rc, const std::string& what, const char* integrityReason = nullptr) {
    if (rc != TSS2_RC_SUCCESS) {
        throw PlatformError("Key processor: the TPM could not " + what + ": " +
                            reasonFor(rc, integrityReason));
    }
}

// Frees what ESAPI allocated for the caller.
struct EsysFree {
    void operator()(void* data) const noexcept { Esys_Free(data); }
};
template <class T>
using EsysOut = std::unique_ptr<T, EsysFree>;
// The same for what holds a secret: wiped before it is freed.
struct EsysWipeFree {
    template <class T>
    void operator()(T* data) const noexcept {
        crypto::wipe(data, sizeof *data);
        Esys_Free(data);
    }
};
template <class T>
using EsysSecretOut = std::unique_ptr<T, EsysWipeFree>;

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

// A key we can make ours children under and salt sessions with: an ECC restricted decrypt key
// with a symmetric cipher that never leaves this TPM and takes an empty password, and a primary of
// the owner hierarchy, which its qualified name proves (the hash of the hierarchy's handle and its
// name). Persistent handles in the owner's range can also hold children of other keys.
bool isOwnerStorageKey(const TPM2B_PUBLIC& publicArea, const TPM2B_NAME& name,
                       const TPM2B_NAME& qualifiedName) {
    const auto& area = publicArea.publicArea;
    constexpr TPMA_OBJECT required = TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT |
                                     TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                                     TPMA_OBJECT_USERWITHAUTH;
    if (area.type != TPM2_ALG_ECC || (area.objectAttributes & required) != required ||
        (area.objectAttributes & TPMA_OBJECT_SIGN_ENCRYPT) != 0 ||
        area.parameters.eccDetail.symmetric.algorithm != TPM2_ALG_AES) {
        return false;
    }
    Bytes input{0x40, 0x00, 0x00, 0x01};  // TPM2_RH_OWNER
    input.insert(input.end(), name.name, name.name + name.size);
    Bytes expected{static_cast<std::uint8_t>(area.nameAlg >> 8),
                   static_cast<std::uint8_t>(area.nameAlg & 0xff)};
    if (area.nameAlg == TPM2_ALG_SHA256) {
        const auto digest = crypto::sha256(input);
        expected.insert(expected.end(), digest.begin(), digest.end());
    } else if (area.nameAlg == TPM2_ALG_SHA384) {
        const auto digest = crypto::sha384(input);
        expected.insert(expected.end(), digest.begin(), digest.end());
    } else {
        return false;
    }
    return std::ranges::equal(expected, ByteView(qualifiedName.name, qualifiedName.size));
}

template <class Sized>
void copyInto(Sized& target, ByteView bytes) {
    if (bytes.size() > sizeof target.buffer) throw PlatformError("Key processor: value too long");
    target.size = static_cast<UINT16>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), target.buffer);
}

}  // namespace

TpmTrouble troubleOf(TSS2_RC rc) {
    const TSS2_RC code = rc & ~TSS2_RC_LAYER_MASK;
    // The software stack's own codes are small numbers; a TPM's, passed on by any layer (a
    // resource manager puts its own layer on some), have the format-one or the version bit.
    if ((code & (TPM2_RC_FMT1 | TPM2_RC_VER1)) == 0) {
        switch (code) {
            case TSS2_BASE_RC_NO_CONNECTION:
            case TSS2_BASE_RC_IO_ERROR:
                return TpmTrouble::unreachable;
            case TSS2_BASE_RC_TRY_AGAIN:
                return TpmTrouble::busy;
            default:
                return TpmTrouble::other;
        }
    }
    // Format one carries the handle, session or parameter it applies to above the error number.
    const TSS2_RC number = (code & TPM2_RC_FMT1) != 0 ? TPM2_RC_FMT1 | (code & 0x3f) : code;
    switch (number) {
        case TPM2_RC_LOCKOUT:
            return TpmTrouble::lockout;
        case TPM2_RC_RETRY:
        case TPM2_RC_YIELDED:
        case TPM2_RC_TESTING:
        case TPM2_RC_NV_RATE:
        case TPM2_RC_NV_UNAVAILABLE:
            return TpmTrouble::busy;
        case TPM2_RC_OBJECT_MEMORY:
        case TPM2_RC_SESSION_MEMORY:
        case TPM2_RC_MEMORY:
        case TPM2_RC_SESSION_HANDLES:
        case TPM2_RC_OBJECT_HANDLES:
            return TpmTrouble::noRoom;
        case TPM2_RC_INTEGRITY:
            return TpmTrouble::integrity;
        case TPM2_RC_AUTH_FAIL:
        case TPM2_RC_BAD_AUTH:
            return TpmTrouble::authFailed;
        default:
            return TpmTrouble::other;
    }
}

void TpmConnection::TctiFinalize::operator()(TSS2_TCTI_CONTEXT* tcti) const noexcept {
    Tss2_TctiLdr_Finalize(&tcti);
}

std::shared_ptr<TpmConnection> TpmConnection::open(const std::string& tcti) {
    quietLibraryLog();
    std::shared_ptr<TpmConnection> connection(new TpmConnection);
    // tpm2-abrmd's TCTI logs through GLib, loaded now so that its first call is covered too.
    if (tcti.find("tabrmd") != std::string::npos) connection->glib_ = GlibLog::load();
    const Turn turn(*connection);
    const auto unreachable = [&](TSS2_RC rc) {
        if (rc != TSS2_RC_SUCCESS) {
            throw PlatformError("Key processor: the TPM cannot be reached through '" + tcti +
                                "': " + Tss2_RC_Decode(rc));
        }
    };
    TSS2_TCTI_CONTEXT* rawTcti = nullptr;
    unreachable(Tss2_TctiLdr_Initialize(tcti.c_str(), &rawTcti));
    connection->tcti_.reset(rawTcti);
    ESYS_CONTEXT* rawEsys = nullptr;
    unreachable(Esys_Initialize(&rawEsys, rawTcti, nullptr));
    connection->esys_.reset(rawEsys);

    // The first command: a TCTI that connects lazily (the simulator's) fails here.
    connection->readCurves();
    connection->readManufacturer();
    connection->useStorageKey();

    // Salted with the storage key: the session key is known to the TPM and to us only.
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

void TpmConnection::readCurves() {
    TPMI_YES_NO more = TPM2_YES;
    TPM2_ECC_CURVE next = TPM2_ECC_NONE;
    while (more == TPM2_YES) {
        TPMS_CAPABILITY_DATA* rawData = nullptr;
        check(Esys_GetCapability(esys_.get(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                 TPM2_CAP_ECC_CURVES, next, TPM2_MAX_ECC_CURVES, &more, &rawData),
              "tell its curves");
        const EsysOut<TPMS_CAPABILITY_DATA> data(rawData);
        const auto& list = data->data.eccCurves;
        if (list.count == 0) break;
        curves_.insert(curves_.end(), list.eccCurves, list.eccCurves + list.count);
        next = static_cast<TPM2_ECC_CURVE>(list.eccCurves[list.count - 1] + 1);
    }
}

void TpmConnection::readManufacturer() {
    TPMI_YES_NO more = TPM2_NO;
    TPMS_CAPABILITY_DATA* rawData = nullptr;
    if (Esys_GetCapability(esys_.get(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                           TPM2_CAP_TPM_PROPERTIES, TPM2_PT_MANUFACTURER, 1, &more,
                           &rawData) != TSS2_RC_SUCCESS) {
        return;
    }
    const EsysOut<TPMS_CAPABILITY_DATA> data(rawData);
    const auto& properties = data->data.tpmProperties;
    if (properties.count == 0 || properties.tpmProperty[0].property != TPM2_PT_MANUFACTURER) return;
    const std::uint32_t code = properties.tpmProperty[0].value;
    for (const int shift : {24, 16, 8, 0}) {
        const char c = static_cast<char>((code >> shift) & 0xFF);
        if (c >= 0x21 && c <= 0x7E) manufacturer_ += c;
    }
}

void TpmConnection::useStorageKey() {
    ESYS_TR persistent = ESYS_TR_NONE;
    const auto found = Esys_TR_FromTPMPublic(esys_.get(), persistentStorageKeyHandle, ESYS_TR_NONE,
                                             ESYS_TR_NONE, ESYS_TR_NONE, &persistent);
    if (found == TSS2_RC_SUCCESS) {
        TPM2B_PUBLIC* rawPublic = nullptr;
        TPM2B_NAME* rawName = nullptr;
        TPM2B_NAME* rawQualifiedName = nullptr;
        const auto rc = Esys_ReadPublic(esys_.get(), persistent, ESYS_TR_NONE, ESYS_TR_NONE,
                                        ESYS_TR_NONE, &rawPublic, &rawName, &rawQualifiedName);
        const EsysOut<TPM2B_PUBLIC> publicArea(rawPublic);
        const EsysOut<TPM2B_NAME> name(rawName);
        const EsysOut<TPM2B_NAME> qualifiedName(rawQualifiedName);
        check(rc, "read its storage key");
        if (isOwnerStorageKey(*publicArea, *name, *qualifiedName)) {
            primary_ = persistent;
            persistent_ = true;
            return;
        }
        Esys_TR_Close(esys_.get(), &persistent);
    } else if (troubleOf(found) != TpmTrouble::other) {
        // Anything but "no such handle" (or a key ESAPI would not take) is the TPM's trouble.
        check(found, "look for its storage key");
    }

    const TPM2B_SENSITIVE_CREATE noSensitive{};
    const auto primary = primaryTemplate();
    const TPM2B_DATA noOutsideInfo{};
    const TPML_PCR_SELECTION noPcrs{};
    const auto rc = Esys_CreatePrimary(
        esys_.get(), ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &noSensitive,
        &primary, &noOutsideInfo, &noPcrs, &primary_, nullptr, nullptr, nullptr, nullptr);
    check(rc, troubleOf(rc) == TpmTrouble::authFailed
                  ? "make its storage key (the owner hierarchy has a password)"
                  : "make its storage key");
}

TpmConnection::~TpmConnection() {
    const GlibLog::ToSystemLog quiet(glib_);
    for (const auto& key : loaded_) flush(key.handle);
    if (session_ != ESYS_TR_NONE) flush(session_);
    if (primary_ != ESYS_TR_NONE && !persistent_) flush(primary_);
    // A persistent key stays in the TPM; only ESAPI's record of it goes.
    if (persistent_) Esys_TR_Close(esys_.get(), &primary_);
    esys_.reset();
    tcti_.reset();
}

void TpmConnection::flush(ESYS_TR handle) noexcept {
    // Nothing to do when it fails: the resource manager drops the connection's objects anyway.
    Esys_FlushContext(esys_.get(), handle);
}

void TpmConnection::flushLeastRecentlyUsed() noexcept {
    flush(loaded_.back().handle);
    loaded_.pop_back();
}

template <class Command>
TSS2_RC TpmConnection::withRoom(const Command& command) {
    const auto rc = command();
    if (troubleOf(rc) != TpmTrouble::noRoom || loaded_.empty()) return rc;
    while (!loaded_.empty()) flushLeastRecentlyUsed();
    return command();
}

ESYS_TR TpmConnection::loaded(const TpmKey& key) {
    const auto found = std::ranges::find(loaded_, key.identity, &LoadedKey::identity);
    if (found != loaded_.end()) {
        std::rotate(loaded_.begin(), found, found + 1);
        return loaded_.front().handle;
    }
    while (loaded_.size() >= keptLoaded) flushLeastRecentlyUsed();
    ESYS_TR handle = ESYS_TR_NONE;
    // Nothing secret goes either way (the private blob is encrypted to the storage key, whose
    // password is empty): a password authorization spares the session's round of the resource
    // manager, which saves and reloads it around every command it is named in.
    check(withRoom([&] {
              return Esys_Load(esys_.get(), primary_, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                               &key.blobs.privateArea, &key.blobs.publicArea, &handle);
          }),
          "load the key",
          "its storage key is not the one the key was made under: the TPM has been cleared "
          "since, or the key was made by another TPM or changed; the key cannot be used again");
    TPM2B_AUTH auth{};
    copyInto(auth, key.authValue);
    const auto rc = Esys_TR_SetAuth(esys_.get(), handle, &auth);
    crypto::wipe(&auth, sizeof auth);
    if (rc != TSS2_RC_SUCCESS) flush(handle);
    check(rc, "take the key's authorization");
    loaded_.insert(loaded_.begin(), LoadedKey{key.identity, handle});
    return handle;
}

void TpmConnection::useSession(TPMA_SESSION attributes) {
    if (!encrypting_) attributes &= ~(TPMA_SESSION_DECRYPT | TPMA_SESSION_ENCRYPT);
    check(Esys_TRSess_SetAttributes(esys_.get(), session_,
                                    TPMA_SESSION_CONTINUESESSION | attributes, 0xff),
          "set up its session");
}

TpmKeyBlobs TpmConnection::create(const TPM2B_PUBLIC& keyTemplate,
                                  const crypto::SecretBytes& authValue) {
    const Turn turn(*this);
    TPM2B_SENSITIVE_CREATE sensitive{};
    copyInto(sensitive.sensitive.userAuth, authValue);
    const TPM2B_DATA noOutsideInfo{};
    const TPML_PCR_SELECTION noPcrs{};
    TPM2B_PRIVATE* rawPrivate = nullptr;
    TPM2B_PUBLIC* rawPublic = nullptr;
    useSession(TPMA_SESSION_DECRYPT);
    // The TPM holds the new key in an object slot of its own while it makes it.
    const auto rc = withRoom([&] {
        return Esys_Create(esys_.get(), primary_, session_, ESYS_TR_NONE, ESYS_TR_NONE, &sensitive,
                           &keyTemplate, &noOutsideInfo, &noPcrs, &rawPrivate, &rawPublic, nullptr,
                           nullptr, nullptr);
    });
    crypto::wipe(&sensitive, sizeof sensitive);
    const EsysOut<TPM2B_PRIVATE> privateArea(rawPrivate);
    const EsysOut<TPM2B_PUBLIC> publicArea(rawPublic);
    check(rc, "make the key");
    return {*publicArea, *privateArea};
}

void TpmConnection::load(const TpmKey& key) {
    const Turn turn(*this);
    loaded(key);
}

std::pair<Bytes, Bytes> TpmConnection::signEcdsa(const TpmKey& key, ByteView digest,
                                                 TPMI_ALG_HASH hash) {
    const Turn turn(*this);
    const auto handle = loaded(key);
    TPM2B_DIGEST input{};
    copyInto(input, digest);
    const TPMT_SIG_SCHEME scheme{.scheme = TPM2_ALG_ECDSA, .details = {.ecdsa = {.hashAlg = hash}}};
    // A null ticket: the key is unrestricted, so the TPM signs digests it did not make.
    const TPMT_TK_HASHCHECK noTicket{.tag = TPM2_ST_HASHCHECK, .hierarchy = TPM2_RH_NULL};
    TPMT_SIGNATURE* rawSignature = nullptr;
    // What is signed may itself be confidential: the digest crosses the bus encrypted, under the
    // salted session, and the key's password never travels.
    useSession(TPMA_SESSION_DECRYPT);
    check(Esys_Sign(esys_.get(), handle, session_, ESYS_TR_NONE, ESYS_TR_NONE, &input, &scheme,
                    &noTicket, &rawSignature),
          "sign (the key may have been changed)");
    const EsysOut<TPMT_SIGNATURE> signature(rawSignature);
    const auto& r = signature->signature.ecdsa.signatureR;
    const auto& s = signature->signature.ecdsa.signatureS;
    return {Bytes(r.buffer, r.buffer + r.size), Bytes(s.buffer, s.buffer + s.size)};
}

crypto::SecretBytes TpmConnection::ecdhZGen(const TpmKey& key, ByteView x, ByteView y) {
    const Turn turn(*this);
    const auto handle = loaded(key);
    TPM2B_ECC_POINT point{};
    copyInto(point.point.x, x);
    copyInto(point.point.y, y);
    TPM2B_ECC_POINT* rawShared = nullptr;
    useSession(TPMA_SESSION_ENCRYPT);
    const auto rc = Esys_ECDH_ZGen(esys_.get(), handle, session_, ESYS_TR_NONE, ESYS_TR_NONE,
                                   &point, &rawShared);
    const EsysSecretOut<TPM2B_ECC_POINT> shared(rawShared);
    check(rc,
          "agree on a secret (the peer's point is not on the key's curve, or the key has "
          "been changed)");
    const auto& sharedX = shared->point.x;
    return crypto::secretOf({sharedX.buffer, sharedX.size});
}

crypto::SecretBytes TpmConnection::rsaDecrypt(const TpmKey& key, ByteView input,
                                              const TPMT_RSA_DECRYPT& scheme, ByteView label) {
    const Turn turn(*this);
    const auto handle = loaded(key);
    TPM2B_PUBLIC_KEY_RSA cipher{};
    copyInto(cipher, input);
    TPM2B_DATA tpmLabel{};
    copyInto(tpmLabel, label);
    TPM2B_PUBLIC_KEY_RSA* rawMessage = nullptr;
    // What goes in may be a digest to sign or a ciphertext, what comes out a signature or the
    // plaintext: both cross the bus encrypted, under the salted session.
    useSession(TPMA_SESSION_DECRYPT | TPMA_SESSION_ENCRYPT);
    const auto rc = Esys_RSA_Decrypt(esys_.get(), handle, session_, ESYS_TR_NONE, ESYS_TR_NONE,
                                     &cipher, &scheme, &tpmLabel, &rawMessage);
    const EsysSecretOut<TPM2B_PUBLIC_KEY_RSA> message(rawMessage);
    check(rc, "use the RSA key (the input does not suit it, or the key has been changed)");
    return crypto::secretOf({message->buffer, message->size});
}

TSS2_RC TpmConnection::testRsaKeySize(int sizeInBits) {
    const Turn turn(*this);
    TPMT_PUBLIC_PARMS parameters{};
    parameters.type = TPM2_ALG_RSA;
    auto& rsa = parameters.parameters.rsaDetail;
    rsa.symmetric.algorithm = TPM2_ALG_NULL;
    rsa.scheme.scheme = TPM2_ALG_NULL;
    rsa.keyBits = static_cast<TPMI_RSA_KEY_BITS>(sizeInBits);
    rsa.exponent = 0;
    return Esys_TestParms(esys_.get(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &parameters);
}

}  // namespace keyloft::platform::key_processor
