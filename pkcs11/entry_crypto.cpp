// Entry points for signing, decryption, key derivation and random numbers.
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
bool finishSigning(const Card& card, Session& session, SignOperation& operation,
                   CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
    if (!roomFor(operation.signatureSize(), pSignature, pulSignatureLen)) return false;
    const Bytes signature = operation.sign(*card.privateKey(session, operation.key()));
    deliver(signature, pSignature, pulSignatureLen);
    return true;
}

template <class Operation>
void startOperation(Card& card, std::optional<Operation>& slot, CK_MECHANISM_PTR pMechanism,
                    CK_OBJECT_HANDLE hKey) {
    require(pMechanism);
    if (slot) throw CryptokiError(CKR_OPERATION_ACTIVE);
    slot.emplace(*pMechanism, card.key(hKey));
}

}  // namespace

extern "C" {

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return onCard([&](Card& card) {
        startOperation(card, card.session(hSession).signing, pMechanism, hKey);
    });
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
             CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
    return onCard([&](Card& card) {
        Session& session = card.session(hSession);
        stepOf(session.signing, [&](SignOperation& operation) {
            const auto data = arrayArgument(pData, ulDataLen);
            require(pulSignatureLen);
            // The data joins the operation only for the call that signs.
            SignOperation whole = operation;
            whole.update(data);
            return finishSigning(card, session, whole, pSignature, pulSignatureLen);
        });
    });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
    return onCard([&](Card& card) {
        stepOf(card.session(hSession).signing, [&](SignOperation& operation) {
            operation.update(arrayArgument(pPart, ulPartLen));
            return false;
        });
    });
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                  CK_ULONG_PTR pulSignatureLen) {
    return onCard([&](Card& card) {
        Session& session = card.session(hSession);
        stepOf(session.signing, [&](SignOperation& operation) {
            return finishSigning(card, session, operation, pSignature, pulSignatureLen);
        });
    });
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                    CK_OBJECT_HANDLE hKey) {
    return onCard([&](Card& card) {
        startOperation(card, card.session(hSession).decrypting, pMechanism, hKey);
    });
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen,
                CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen) {
    return onCard([&](Card& card) {
        Session& session = card.session(hSession);
        stepOf(session.decrypting, [&](DecryptOperation& operation) {
            const auto ciphertext = arrayArgument(pEncryptedData, ulEncryptedDataLen);
            require(pulDataLen);
            // Without a buffer the caller learns the most the plaintext can take.
            if (pData == nullptr) {
                *pulDataLen = operation.plaintextLimit();
                return false;
            }
            const auto plaintext =
                operation.decrypt(*card.privateKey(session, operation.key()), ciphertext);
            roomFor(plaintext.size(), pData, pulDataLen);
            deliver(plaintext, pData, pulDataLen);
            return true;
        });
    });
}

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                  CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount,
                  CK_OBJECT_HANDLE_PTR phKey) {
    return onCard([&](Card& card) {
        Session& session = card.session(hSession);
        require(pMechanism);
        require(phKey);
        const auto keyTemplate = arrayArgument(pTemplate, ulAttributeCount);
        const EcdhDerivation derivation(*pMechanism, card.key(hBaseKey));
        const auto secret = derivation.derive(*card.privateKey(session, derivation.key()));
        *phKey =
            card.objects().addSessionObject(hSession, derivedSecretObject(secret, keyTemplate));
    });
}

CK_RV C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed, CK_ULONG ulSeedLen) {
    return onCard([&](Card& card) {
        card.session(hSession);
        arrayArgument(pSeed, ulSeedLen);
        throw CryptokiError(CKR_RANDOM_SEED_NOT_SUPPORTED);
    });
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen) {
    return onCard([&](Card& card) {
        card.session(hSession);
        const auto out = arrayArgument(pRandomData, ulRandomLen);
        if (!platform::crypto::randomBytes(out)) throw CryptokiError(CKR_FUNCTION_FAILED);
    });
}

}  // extern "C"
