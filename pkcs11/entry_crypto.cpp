// Entry points for signing, verification, decryption, digests, key derivation and random numbers.
#include "pkcs11/derived_secret.hpp"
#include "pkcs11/module_state.hpp"
#include "platform/crypto/random.hpp"

using namespace keyloft;
using namespace keyloft::pkcs11;

namespace {

// Runs a step of an operation held in the session; the operation ends unless the step only told
// the caller the output size or the buffer was too small, as the standard asks.
template <class Operation, class Step>
void stepOf(std::optional<Operation>& operation, Step&& step) {
    if (!operation) throw CryptokiError(CKR_OPERATION_NOT_INITIALIZED);
    try {
        if (step(*operation)) operation.reset();
    } catch (const CryptokiError& error) {
        if (error.rv() != CKR_BUFFER_TOO_SMALL) operation.reset();
        throw;
    } catch (...) {
        operation.reset();
        throw;
    }
}

// The signature, written when the caller's buffer takes it; true when the operation is done.
bool finishSigning(Slot& slot, Session& session, SignOperation& operation, CK_BYTE_PTR pSignature,
                   CK_ULONG_PTR pulSignatureLen) {
    if (!roomFor(operation.signatureSize(), pSignature, pulSignatureLen)) return false;
    const Bytes signature = operation.sign(*slot.privateKey(session, operation.key()));
    deliver(signature, pSignature, pulSignatureLen);
    return true;
}

template <class Operation>
void startOperation(Slot& slot, std::optional<Operation>& pending, CK_MECHANISM_PTR pMechanism,
                    CK_OBJECT_HANDLE hKey) {
    require(pMechanism);
    slot.checkLive();
    if (pending) throw CryptokiError(CKR_OPERATION_ACTIVE);
    pending.emplace(*pMechanism, *slot.key(hKey));
}

}  // namespace

extern "C" {

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return onSlot([&](Slot& slot) {
        startOperation(slot, slot.session(hSession)->signing, pMechanism, hKey);
    });
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
             CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        stepOf(session->signing, [&](SignOperation& operation) {
            operation.form.onePart();
            const auto data = arrayArgument(pData, ulDataLen);
            require(pulSignatureLen);
            // The data joins the operation only for the call that signs.
            SignOperation whole = operation;
            whole.update(data);
            return finishSigning(slot, *session, whole, pSignature, pulSignatureLen);
        });
    });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->signing, [&](SignOperation& operation) {
            operation.form.inParts();
            operation.update(arrayArgument(pPart, ulPartLen));
            return false;
        });
    });
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                  CK_ULONG_PTR pulSignatureLen) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        stepOf(session->signing, [&](SignOperation& operation) {
            operation.form.inParts();
            return finishSigning(slot, *session, operation, pSignature, pulSignatureLen);
        });
    });
}

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return onSlot([&](Slot& slot) {
        startOperation(slot, slot.session(hSession)->verifying, pMechanism, hKey);
    });
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
               CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->verifying, [&](VerifyOperation& operation) {
            operation.form.onePart();
            slot.checkLive();
            operation.update(arrayArgument(pData, ulDataLen));
            operation.verify(arrayArgument(pSignature, ulSignatureLen));
            return true;
        });
    });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->verifying, [&](VerifyOperation& operation) {
            operation.form.inParts();
            operation.update(arrayArgument(pPart, ulPartLen));
            return false;
        });
    });
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->verifying, [&](VerifyOperation& operation) {
            operation.form.inParts();
            slot.checkLive();
            operation.verify(arrayArgument(pSignature, ulSignatureLen));
            return true;
        });
    });
}

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        require(pMechanism);
        slot.checkLive();
        if (session->digesting) throw CryptokiError(CKR_OPERATION_ACTIVE);
        session->digesting.emplace(*pMechanism);
    });
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
               CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->digesting, [&](DigestOperation& operation) {
            operation.form.onePart();
            const auto data = arrayArgument(pData, ulDataLen);
            if (!roomFor(operation.digestSize(), pDigest, pulDigestLen)) return false;
            // The data joins the operation only for the call that finishes it.
            DigestOperation whole = operation;
            whole.update(data);
            deliver(whole.finish(), pDigest, pulDigestLen);
            return true;
        });
    });
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->digesting, [&](DigestOperation& operation) {
            operation.form.inParts();
            operation.update(arrayArgument(pPart, ulPartLen));
            return false;
        });
    });
}

CK_RV C_DigestKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        stepOf(session->digesting, [&](DigestOperation& operation) {
            const auto key = slot.objects().find(hKey);
            if (!key) throw CryptokiError(CKR_KEY_HANDLE_INVALID);
            // Only a secret whose value the module holds can be digested: the derived secrets.
            const Bytes* value = key->attributes.find(CKA_VALUE);
            if (key->identity.objectClass != CKO_SECRET_KEY || value == nullptr)
                throw CryptokiError(CKR_KEY_INDIGESTIBLE);
            operation.form.inParts();
            operation.update(*value);
            return false;
        });
    });
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->digesting, [&](DigestOperation& operation) {
            operation.form.inParts();
            if (!roomFor(operation.digestSize(), pDigest, pulDigestLen)) return false;
            deliver(operation.finish(), pDigest, pulDigestLen);
            return true;
        });
    });
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                    CK_OBJECT_HANDLE hKey) {
    return onSlot([&](Slot& slot) {
        startOperation(slot, slot.session(hSession)->decrypting, pMechanism, hKey);
    });
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen,
                CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        stepOf(session->decrypting, [&](DecryptOperation& operation) {
            const auto ciphertext = arrayArgument(pEncryptedData, ulEncryptedDataLen);
            require(pulDataLen);
            // Without a buffer the caller learns the most the plaintext can take.
            if (pData == nullptr) {
                *pulDataLen = operation.plaintextLimit();
                return false;
            }
            const auto plaintext =
                operation.decrypt(*slot.privateKey(*session, operation.key()), ciphertext);
            roomFor(plaintext.size(), pData, pulDataLen);
            deliver(plaintext, pData, pulDataLen);
            return true;
        });
    });
}

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                    CK_OBJECT_HANDLE hKey) {
    return onSlot([&](Slot& slot) {
        startOperation(slot, slot.session(hSession)->encrypting, pMechanism, hKey);
    });
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                CK_BYTE_PTR pEncryptedData, CK_ULONG_PTR pulEncryptedDataLen) {
    return onSlot([&](Slot& slot) {
        stepOf(slot.session(hSession)->encrypting, [&](EncryptOperation& operation) {
            const auto message = arrayArgument(pData, ulDataLen);
            require(pulEncryptedDataLen);
            if (!roomFor(operation.ciphertextSize(), pEncryptedData, pulEncryptedDataLen))
                return false;
            deliver(operation.encrypt(message), pEncryptedData, pulEncryptedDataLen);
            return true;
        });
    });
}

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                  CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount,
                  CK_OBJECT_HANDLE_PTR phKey) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        require(pMechanism);
        require(phKey);
        const auto keyTemplate = arrayArgument(pTemplate, ulAttributeCount);
        const EcdhDerivation derivation(*pMechanism, *slot.key(hBaseKey));
        const auto secret = derivation.derive(*slot.privateKey(*session, derivation.key()));
        // A read-only session may make no token object at all; in a read-write one, the card
        // holds only identities, never secret keys, so CKA_TOKEN cannot be true.
        const CK_RV tokenObjectRefusal = (session->flags & CKF_RW_SESSION) == 0
                                             ? CKR_SESSION_READ_ONLY
                                             : CKR_ATTRIBUTE_VALUE_INVALID;
        *phKey = slot.objects().addSessionObject(
            hSession, derivedSecretObject(secret, keyTemplate, tokenObjectRefusal));
    });
}

CK_RV C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed, CK_ULONG ulSeedLen) {
    return onSlot([&](Slot& slot) {
        slot.session(hSession);
        arrayArgument(pSeed, ulSeedLen);
        throw CryptokiError(CKR_RANDOM_SEED_NOT_SUPPORTED);
    });
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen) {
    return onSlot([&](Slot& slot) {
        slot.session(hSession);
        slot.checkLive();
        const auto out = arrayArgument(pRandomData, ulRandomLen);
        if (!platform::crypto::randomBytes(out)) throw CryptokiError(CKR_FUNCTION_FAILED);
    });
}

}  // extern "C"
