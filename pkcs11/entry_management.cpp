// Entry points that change the card: key pairs made, certificates stored, labels changed,
// identities removed. The card has no PIN: no login is needed (docs/decisions.md).
#include "card/identity_lookup.hpp"
#include "pkcs11/card_templates.hpp"
#include "pkcs11/module_state.hpp"
#include "x509/certificate_reader.hpp"

using namespace keyloft;
using namespace keyloft::pkcs11;

namespace {

// Token objects change only in read-write sessions.
void requireReadWrite(const Session& session) {
    if ((session.flags & CKF_RW_SESSION) == 0) throw CryptokiError(CKR_SESSION_READ_ONLY);
}

// The handle of an object just stored. Nothing may fail once the change is committed: the
// application would take a stored key for one never made, and make another.
CK_OBJECT_HANDLE handleOf(Slot& slot, CK_OBJECT_CLASS objectClass, const Bytes& hash) {
    return slot.objects().handleOfWritten({objectClass, hash});
}

}  // namespace

extern "C" {

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                        CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                        CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                        CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        require(pMechanism);
        require(phPublicKey);
        require(phPrivateKey);
        const std::span<const CK_ATTRIBUTE> publicTemplate =
            arrayArgument(pPublicKeyTemplate, ulPublicKeyAttributeCount);
        const std::span<const CK_ATTRIBUTE> privateTemplate =
            arrayArgument(pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
        slot.checkLive();
        if (pMechanism->mechanism != CKM_EC_KEY_PAIR_GEN &&
            pMechanism->mechanism != CKM_RSA_PKCS_KEY_PAIR_GEN)
            throw CryptokiError(CKR_MECHANISM_INVALID);
        if (pMechanism->pParameter != nullptr || pMechanism->ulParameterLen != 0)
            throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
        requireReadWrite(*session);
        const KeyPairRequest request =
            keyPairRequestOf(pMechanism->mechanism, publicTemplate, privateTemplate);
        const Bytes hash =
            addIdentity(slot.withKeyProcessor([&] { return makeIdentity(request); }));
        *phPublicKey = handleOf(slot, CKO_PUBLIC_KEY, hash);
        *phPrivateKey = handleOf(slot, CKO_PRIVATE_KEY, hash);
    });
}

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phObject) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        const std::span<const CK_ATTRIBUTE> objectTemplate = arrayArgument(pTemplate, ulCount);
        require(phObject);
        // The card takes the certificates of its own keys, nothing else.
        const auto* objectClass = findIn(objectTemplate, CKA_CLASS);
        if (objectClass == nullptr) throw CryptokiError(CKR_TEMPLATE_INCOMPLETE);
        if (ulongOf(*objectClass) != CKO_CERTIFICATE)
            throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
        expectUlong(objectTemplate, CKA_CERTIFICATE_TYPE, CKC_X_509);
        expectTokenObject(objectTemplate);
        requireReadWrite(*session);
        const auto* value = findIn(objectTemplate, CKA_VALUE);
        if (value == nullptr) throw CryptokiError(CKR_TEMPLATE_INCOMPLETE);
        const Bytes certificate = valueOf(*value);
        const auto fields = x509::readCertificate(certificate);
        if (!fields) throw CryptokiError(CKR_ATTRIBUTE_VALUE_INVALID);
        // The id pairs the certificate with its key: it must be the key's public-key hash.
        const Bytes hash = card::publicKeyHashOf(*fields);
        if (const auto* id = findIn(objectTemplate, CKA_ID); id != nullptr && valueOf(*id) != hash)
            throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
        storeCertificate(certificate, hash, labelIn(objectTemplate));
        *phObject = handleOf(slot, CKO_CERTIFICATE, hash);
    });
}

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        const auto object = slot.object(hObject);
        if (slot.objects().destroySessionObject(hObject)) return;
        // An identity is one unit on the card: either of its keys takes it all away, as
        // delete-identity does. Its certificate alone is replaced, never destroyed, so that no
        // key is lost with it.
        if (object->identity.objectClass == CKO_CERTIFICATE)
            throw CryptokiError(CKR_ACTION_PROHIBITED);
        requireReadWrite(*session);
        removeIdentity(object->identity.objectID);
    });
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                          CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        const auto object = slot.object(hObject);
        const std::span<const CK_ATTRIBUTE> changes = arrayArgument(pTemplate, ulCount);
        if (!object->allows(CKA_MODIFIABLE)) throw CryptokiError(CKR_ACTION_PROHIBITED);
        requireReadWrite(*session);
        // Only the label changes, for the whole identity; setting any attribute to the value it
        // has is allowed, as tools rewrite what they read.
        std::optional<std::string> label;
        for (const auto& change : changes) {
            if (change.type == CKA_LABEL) {
                label = textOf(change);
                continue;
            }
            const Bytes* current = object->attributes.find(change.type);
            if (current == nullptr || *current != valueOf(change))
                throw CryptokiError(CKR_ATTRIBUTE_READ_ONLY);
        }
        if (label) relabelIdentity(object->identity.objectID, *label);
    });
}

}  // extern "C"
