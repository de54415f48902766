// Entry points for finding objects and reading their attributes.
#include "pkcs11/module_state.hpp"

using namespace keyloft;
using namespace keyloft::pkcs11;

extern "C" {

CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                   CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phNewObject) {
    return onSlot([&](Slot& slot) {
        slot.session(hSession);
        slot.object(hObject);
        arrayArgument(pTemplate, ulCount);
        require(phNewObject);
        throw CryptokiError(CKR_ACTION_PROHIBITED);
    });
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize) {
    return onSlot([&](Slot& slot) {
        slot.session(hSession);
        slot.object(hObject);
        require(pulSize);
        *pulSize = CK_UNAVAILABLE_INFORMATION;
    });
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                          CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    return onSlot([&](Slot& slot) {
        slot.session(hSession);
        const auto object = slot.object(hObject);
        const CK_RV rv = object->attributes.copyInto(arrayArgument(pTemplate, ulCount));
        if (rv != CKR_OK) throw CryptokiError(rv);
    });
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        const auto searchTemplate = arrayArgument(pTemplate, ulCount);
        if (session->searchResults) throw CryptokiError(CKR_OPERATION_ACTIVE);
        session->searchResults = slot.objects().search(searchTemplate);
        session->searchPosition = 0;
    });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject,
                    CK_ULONG ulMaxObjectCount, CK_ULONG_PTR pulObjectCount) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        require(pulObjectCount);
        const auto out = arrayArgument(phObject, ulMaxObjectCount);
        if (!session->searchResults) throw CryptokiError(CKR_OPERATION_NOT_INITIALIZED);
        const auto& results = *session->searchResults;
        const std::size_t count =
            std::min<std::size_t>(out.size(), results.size() - session->searchPosition);
        std::copy_n(results.begin() + static_cast<std::ptrdiff_t>(session->searchPosition), count,
                    out.begin());
        session->searchPosition += count;
        *pulObjectCount = count;
    });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession) {
    return onSlot([&](Slot& slot) {
        const auto session = slot.session(hSession);
        if (!session->searchResults) throw CryptokiError(CKR_OPERATION_NOT_INITIALIZED);
        session->searchResults.reset();
    });
}

}  // extern "C"
