#pragma once

#include <memory>
#include <new>
#include <shared_mutex>

#include "base/error.hpp"
#include "pkcs11/slot.hpp"
#include "platform/os/log.hpp"

namespace keyloft::pkcs11 {

// The module's state. Entry points share the lock, so calls from different threads run at once
// (CKF_OS_LOCKING_OK); only starting and ending the card take it alone. The card guards its own
// sessions and objects.
struct ModuleState {
    std::shared_mutex lock;
    std::unique_ptr<Slot> slot;  // set between C_Initialize and C_Finalize
};

// Never destroyed: applications finalize from exit handlers and thread exits that may run after
// static destructors, and must find the state whole.
ModuleState& moduleState();

// Starts the card for C_Initialize; false when it already runs.
bool startSlot(std::unique_ptr<Slot> slot);
// Ends the card for C_Finalize; false when none runs.
bool endSlot();

// Runs an entry point's work on the initialised slot, turning every failure into its CKR_ value.
// Nothing escapes into the calling application.
template <class Work>
CK_RV onSlot(Work&& work) noexcept {
    try {
        auto& state = moduleState();
        const std::shared_lock guard(state.lock);
        if (!state.slot) return CKR_CRYPTOKI_NOT_INITIALIZED;
        work(*state.slot);
        return CKR_OK;
    } catch (const CryptokiError& error) {
        return error.rv();
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    } catch (const PlatformError& error) {
        platform::os::logError(std::string("PKCS#11 operation failed: ") + error.what());
        // The user's refusal is not the token's failure: applications show them differently.
        return error.code() == presenceNotConfirmedCode ? CKR_FUNCTION_REJECTED
                                                        : CKR_FUNCTION_FAILED;
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
