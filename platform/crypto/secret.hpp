#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace keyloft::platform::crypto {

// Overwrites memory so that no secret outlives its use.
void wipe(void* data, std::size_t size) noexcept;

// Allocator that wipes every block before handing it back; containers using it leave no copy of a
// secret behind, also when they grow.
template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <class U>
    constexpr WipingAllocator(const WipingAllocator<U>& /*other*/) noexcept {}
    T* allocate(std::size_t n) { return std::allocator<T>{}.allocate(n); }
    void deallocate(T* p, std::size_t n) noexcept {
        wipe(p, n * sizeof(T));
        std::allocator<T>{}.deallocate(p, n);
    }
    template <class U>
    bool operator==(const WipingAllocator<U>& /*other*/) const noexcept {
        return true;
    }
};

// Private keys, passwords and derived keys.
using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

inline SecretBytes secretOf(std::span<const std::uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

// UTF-8 text of a password; no small-string buffer, so every byte sits in wiped storage.
using SecretText = std::vector<char, WipingAllocator<char>>;

inline SecretText secretTextOf(std::string_view text) {
    return {text.begin(), text.end()};
}
inline std::string_view view(const SecretText& text) {
    return {text.data(), text.size()};
}

}  // namespace keyloft::platform::crypto
