#include "pkcs11/module_state.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <mutex>

#include "platform/crypto/digest_stream.hpp"

namespace keyloft::pkcs11 {
namespace {

// Applications finalize from exit handlers registered before they first initialized the module,
// which run after the crypto library's own cleanup. So this handler, registered once the crypto
// library has started and so run ahead of its cleanup (or at dlclose), frees every key the card
// holds while that is still safe; the card itself stays for the application's handlers to close.
void releaseKeysAtExit() {
    auto& state = moduleState();
    const std::shared_lock guard(state.lock);
    if (state.slot) state.slot->releaseKeys();
}

// Runs at dlclose, and at exit after every exit handler: a card the application never finalized
// goes with the module. It holds no keys by then.
[[gnu::destructor]] void endSlotAtUnload() {
    endSlot();
}

}  // namespace

ModuleState& moduleState() {
    // In the module's own storage, so that unloading it leaves nothing allocated behind.
    alignas(ModuleState) static std::byte storage[sizeof(ModuleState)];
    static ModuleState* const state = new (storage) ModuleState;
    return *state;
}

bool startSlot(std::unique_ptr<Slot> slot) {
    platform::crypto::startCryptoLibrary();
    static std::once_flag registered;
    std::call_once(registered, [] {
        if (std::atexit(releaseKeysAtExit) != 0) throw CryptokiError(CKR_HOST_MEMORY);
    });
    auto& state = moduleState();
    const std::unique_lock guard(state.lock);
    if (state.slot) return false;
    state.slot = std::move(slot);
    return true;
}

bool endSlot() {
    std::unique_ptr<Slot> ended;
    auto& state = moduleState();
    {
        const std::unique_lock guard(state.lock);
        ended = std::move(state.slot);
    }
    return ended != nullptr;
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
