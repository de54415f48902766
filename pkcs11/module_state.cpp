#include "pkcs11/module_state.hpp"

#include <algorithm>

namespace keyloft::pkcs11 {

ModuleState& moduleState() {
    static ModuleState state;
    return state;
}

bool roomFor(std::size_t size, CK_BYTE_PTR buffer, CK_ULONG_PTR length) {
    require(length);
    const CK_ULONG offered = *length;
    *length = size;
    if (buffer == nullptr) return false;
    if (offered < size) throw CryptokiError(CKR_BUFFER_TOO_SMALL);
    return true;
}

void deliver(ByteView output, CK_BYTE_PTR buffer, CK_ULONG_PTR length) {
    std::copy(output.begin(), output.end(), buffer);
    *length = output.size();
}

}  // namespace keyloft::pkcs11
