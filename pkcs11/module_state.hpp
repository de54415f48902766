#pragma once

#include <memory>
#include <mutex>
#include <new>

#include "base/error.hpp"
#include "pkcs11/card.hpp"
#include "platform/os/log.hpp"

namespace keyloft::pkcs11 {

// The module's state: one lock serialises every entry point, which makes the module safe for
// applications that call it from several threads (CKF_OS_LOCKING_OK).
struct ModuleState {
    std::mutex lock;
    std::unique_ptr<Card> card;  // set between C_Initialize and C_Finalize
};

ModuleState& moduleState();

// Runs an entry point's work on the initialised card, turning every failure into its CKR_ value.
// Nothing escapes into the calling application.
template <class Work>
CK_RV onCard(Work&& work) noexcept {
    try {
        auto& state = moduleState();
        const std::lock_guard guard(state.lock);
        if (!state.card) return CKR_CRYPTOKI_NOT_INITIALIZED;
        work(*state.card);
        return CKR_OK;
    } catch (const CryptokiError& error) {
        return error.rv();
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    } catch (const std::exception& error) {
        platform::os::logError(std::string("PKCS#11 operation failed: ") + error.what());
        return CKR_FUNCTION_FAILED;
    } catch (...) {
        return CKR_GENERAL_ERROR;
    }
}

// Throws CKR_ARGUMENTS_BAD when a required pointer is null.
inline void require(const void* pointer) {
    if (pointer == nullptr) throw CryptokiError(CKR_ARGUMENTS_BAD);
}

// A caller's buffer and count as a span; a null buffer is allowed only with a zero count.
template <class T>
std::span<T> arrayArgument(T* pointer, CK_ULONG count) {
    if (pointer == nullptr && count != 0) throw CryptokiError(CKR_ARGUMENTS_BAD);
    return pointer == nullptr ? std::span<T>() : std::span<T>(pointer, count);
}

// The two-call convention for output: with no buffer the caller learns the size (false); with a
// buffer too small, the size and CKR_BUFFER_TOO_SMALL; true when the buffer can take it.
bool roomFor(std::size_t size, CK_BYTE_PTR buffer, CK_ULONG_PTR length);
// Copies the output into a buffer roomFor accepted.
void deliver(ByteView output, CK_BYTE_PTR buffer, CK_ULONG_PTR length);

}  // namespace keyloft::pkcs11
