#include "pkcs12_export/p12_pbe_gen.hpp"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/text/utf16.hpp"

namespace keyloft::pkcs12_export {
namespace {

constexpr std::size_t blockSize = 64;  // v: SHA-1's input block
constexpr std::size_t hashSize = 20;   // u: SHA-1's output

// Repeats the bytes to the next multiple of the block size at or above their length.
platform::crypto::SecretBytes extendToBlocks(ByteView bytes) {
    const std::size_t length = (bytes.size() + blockSize - 1) / blockSize * blockSize;
    platform::crypto::SecretBytes out(length);
    for (std::size_t i = 0; i < length; ++i) out[i] = bytes[i % bytes.size()];
    return out;
}

// Replaces the bytes by their SHA-1 without leaving the old or the new value in freed memory.
void hashInPlace(platform::crypto::SecretBytes& bytes) {
    Bytes digest = platform::crypto::sha1(bytes);
    bytes.assign(digest.begin(), digest.end());
    platform::crypto::wipe(digest.data(), digest.size());
}

// block = (block + b + 1) mod 2^512, big-endian; the carry out of the top byte is dropped.
void addWithCarry(std::span<std::uint8_t> block, ByteView b) {
    unsigned carry = 1;
    for (std::size_t i = blockSize; i-- > 0;) {
        const unsigned sum = block[i] + b[i] + carry;
        block[i] = static_cast<std::uint8_t>(sum);
        carry = sum >> 8U;
    }
}

void derive(std::string_view password, ByteView salt, std::uint32_t iterations, PbeId id,
            std::span<std::uint8_t> out) {
    auto passwordBytes = platform::text::utf16BigEndian(password);
    passwordBytes.insert(passwordBytes.end(), {0, 0});
    platform::crypto::SecretBytes input = extendToBlocks(salt);
    const auto extendedPassword = extendToBlocks(passwordBytes);
    input.insert(input.end(), extendedPassword.begin(), extendedPassword.end());
    // A typed password and an 8-byte salt stay far below this; only a caller's bug reaches it.
    if (input.size() >= std::numeric_limits<std::uint32_t>::max()) std::abort();

    platform::crypto::SecretBytes result;
    while (result.size() < out.size()) {
        platform::crypto::SecretBytes a(blockSize, static_cast<std::uint8_t>(id));
        a.insert(a.end(), input.begin(), input.end());
        hashInPlace(a);
        for (std::uint32_t i = 1; i < iterations; ++i) hashInPlace(a);
        result.insert(result.end(), a.begin(), a.end());
        platform::crypto::SecretBytes b(blockSize);
        for (std::size_t i = 0; i < blockSize; ++i) b[i] = a[i % hashSize];
        for (std::size_t j = 0; j < input.size(); j += blockSize)
            addWithCarry({input.data() + j, blockSize}, b);
    }
    std::copy_n(result.begin(), out.size(), out.begin());
}

}  // namespace

int p12_pbe_gen(std::optional<std::string_view> password, ByteView salt, std::uint32_t iterations,
                PbeId id, std::span<std::uint8_t> out) noexcept {
    if (!password || salt.empty()) return -1;
    try {
        derive(*password, salt, iterations, id, out);
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    } catch (const PlatformError&) {
        return -1;
    }
}

platform::crypto::SecretBytes pbeKey(std::string_view password, ByteView salt,
                                     std::uint32_t iterations, PbeId id, std::size_t length,
                                     const std::string& failureMessage) {
    platform::crypto::SecretBytes out(length);
    if (p12_pbe_gen(password, salt, iterations, id, out) != 0)
        throw KeyloftError::generic(failureMessage);
    return out;
}

platform::crypto::SecretBytes pbeMacKey(std::string_view password, ByteView salt,
                                        std::uint32_t iterations) {
    return pbeKey(password, salt, iterations, PbeId::mac, hashSize, "Failed to generate pbe");
}

}  // namespace keyloft::pkcs12_export
