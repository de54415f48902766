// Entry points for the module, its slot, its token and sessions.
#include <algorithm>

#include "card/user_card_watcher.hpp"
#include "pkcs11/mechanisms.hpp"
#include "pkcs11/module_state.hpp"
#include "pkcs11/token_info.hpp"

using namespace keyloft;
using namespace keyloft::pkcs11;

namespace {

// The application's locking choices. The module always locks with its own mutex, which serves
// both an application that asks for OS locking and one that gives no threading guarantees.
CK_RV checkInitializeArguments(const CK_C_INITIALIZE_ARGS* args) {
    if (args == nullptr) return CKR_OK;
    if (args->pReserved != nullptr) return CKR_ARGUMENTS_BAD;
    const int given = (args->CreateMutex != nullptr) + (args->DestroyMutex != nullptr) +
                      (args->LockMutex != nullptr) + (args->UnlockMutex != nullptr);
    if (given != 0 && given != 4) return CKR_ARGUMENTS_BAD;
    // Only the application's own mutexes would be safe, and the module cannot use them.
    if (given == 4 && (args->flags & CKF_OS_LOCKING_OK) == 0) return CKR_CANT_LOCK;
    return CKR_OK;
}

// The card has no PIN to set; a read-only session could not set one anyway.
CK_RV noPin(Slot& slot, CK_SESSION_HANDLE hSession) {
    const bool readWrite = (slot.session(hSession)->flags & CKF_RW_SESSION) != 0;
    return readWrite ? CKR_FUNCTION_NOT_SUPPORTED : CKR_SESSION_READ_ONLY;
}

}  // namespace

extern "C" {

CK_RV C_Initialize(CK_VOID_PTR pInitArgs) {
    const CK_RV rv = checkInitializeArguments(static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs));
    if (rv != CKR_OK) return rv;
    try {
        auto watcher = std::make_shared<card::UserCardWatcher>();
        auto slot = std::make_unique<Slot>([watcher](ObjectTable::Freshness freshness) {
            return watcher->changes(freshness == ObjectTable::Freshness::afterOwnWrite);
        });
        return startSlot(std::move(slot)) ? CKR_OK : CKR_CRYPTOKI_ALREADY_INITIALIZED;
    } catch (const CryptokiError& error) {
        return error.rv();
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    } catch (const std::exception& error) {
        platform::os::logError(std::string("PKCS#11 module cannot start: ") + error.what());
        return CKR_GENERAL_ERROR;
    }
}

CK_RV C_Finalize(CK_VOID_PTR pReserved) {
    if (pReserved != nullptr) return CKR_ARGUMENTS_BAD;
    return endSlot() ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED;
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
    return onSlot([&](Slot&) {
        require(pInfo);
        *pInfo = moduleInfo();
    });
}

CK_RV C_GetSlotList(CK_BBOOL, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount) {
    return onSlot([&](Slot&) {
        require(pulCount);
        // The token is always present, so both kinds of list hold the one slot.
        const CK_ULONG offered = *pulCount;
        *pulCount = 1;
        if (pSlotList == nullptr) return;
        if (offered < 1) throw CryptokiError(CKR_BUFFER_TOO_SMALL);
        pSlotList[0] = Slot::slotID;
    });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo) {
    return onSlot([&](Slot&) {
        Slot::checkSlot(slotID);
        require(pInfo);
        *pInfo = slotInfo();
    });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo) {
    return onSlot([&](Slot& slot) {
        Slot::checkSlot(slotID);
        require(pInfo);
        *pInfo = tokenInfo(slot.sessionCount(), slot.sessionCount() - slot.readOnlySessionCount());
    });
}

CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList,
                         CK_ULONG_PTR pulCount) {
    return onSlot([&](Slot&) {
        Slot::checkSlot(slotID);
        require(pulCount);
        const auto all = mechanisms();
        const CK_ULONG offered = *pulCount;
        *pulCount = all.size();
        if (pMechanismList == nullptr) return;
        if (offered < all.size()) throw CryptokiError(CKR_BUFFER_TOO_SMALL);
        std::transform(all.begin(), all.end(), pMechanismList,
                       [](const Mechanism& mechanism) { return mechanism.type; });
    });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo) {
    return onSlot([&](Slot&) {
        Slot::checkSlot(slotID);
        require(pInfo);
        const Mechanism* mechanism = findMechanism(type);
        if (mechanism == nullptr) throw CryptokiError(CKR_MECHANISM_INVALID);
        *pInfo = mechanismInfo(*mechanism);
    });
}

CK_RV C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR) {
    return onSlot([&](Slot&) {
        Slot::checkSlot(slotID);
        // The tool's delete-all-identities empties the slot; nothing here starts it anew.
        throw CryptokiError(CKR_FUNCTION_NOT_SUPPORTED);
    });
}

CK_RV C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR, CK_ULONG) {
    return onSlot([&](Slot& slot) { throw CryptokiError(noPin(slot, hSession)); });
}

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR, CK_ULONG) {
    return onSlot([&](Slot& slot) { throw CryptokiError(noPin(slot, hSession)); });
}

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR, CK_NOTIFY,
                    CK_SESSION_HANDLE_PTR phSession) {
    return onSlot([&](Slot& slot) {
        Slot::checkSlot(slotID);
        require(phSession);
        if ((flags & CKF_SERIAL_SESSION) == 0)
            throw CryptokiError(CKR_SESSION_PARALLEL_NOT_SUPPORTED);
        // Read-write sessions are granted although nothing can be written: OpenSSH, among
        // others, opens only those. Every change is still refused per object.
        *phSession = slot.openSession(flags & (CKF_SERIAL_SESSION | CKF_RW_SESSION));
    });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession) {
    return onSlot([&](Slot& slot) { slot.closeSession(hSession); });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID) {
    return onSlot([&](Slot& slot) {
        Slot::checkSlot(slotID);
        slot.closeAllSessions();
    });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        require(pInfo);
        pInfo->slotID = Slot::slotID;
        const bool readWrite = (session->flags & CKF_RW_SESSION) != 0;
        pInfo->state = slot.loggedIn()
                           ? (readWrite ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS)
                           : (readWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION);
        pInfo->flags = session->flags;
        pInfo->ulDeviceError = 0;
    });
}

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
              CK_ULONG ulPinLen) {
    return onSlot([&](Slot& slot) {
        slot.session(hSession);
        arrayArgument(pPin, ulPinLen);
        switch (userType) {
            case CKU_USER:
                // The token has no PIN: logging in changes nothing but the session state.
                slot.logIn();
                return;
            case CKU_SO:
                if (slot.loggedIn()) throw CryptokiError(CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
                // There is no security officer, so no PIN is the right one.
                throw CryptokiError(slot.readOnlySessionCount() > 0 ? CKR_SESSION_READ_ONLY_EXISTS
                                                                    : CKR_PIN_INCORRECT);
            case CKU_CONTEXT_SPECIFIC:
                throw CryptokiError(CKR_OPERATION_NOT_INITIALIZED);
            default:
                throw CryptokiError(CKR_USER_TYPE_INVALID);
        }
    });
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession) {
    return onSlot([&](Slot& slot) {
        slot.session(hSession);
        slot.logOut();
    });
}

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved) {
    return onSlot([&](Slot&) {
        if (pReserved != nullptr) throw CryptokiError(CKR_ARGUMENTS_BAD);
        require(pSlot);
        // The token never leaves its slot.
        if ((flags & CKF_DONT_BLOCK) != 0) throw CryptokiError(CKR_NO_EVENT);
        throw CryptokiError(CKR_FUNCTION_NOT_SUPPORTED);
    });
}

}  // extern "C"
