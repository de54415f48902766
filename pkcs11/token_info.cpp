#include "pkcs11/token_info.hpp"

#include <algorithm>
#include <string_view>

#include "card/user_card.hpp"
#include "encoding/hex.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/key_processor/key_processor.hpp"

namespace keyloft::pkcs11 {
namespace {

constexpr CK_VERSION moduleVersion{0, 1};

// Fixed-size text fields are blank-padded and not terminated.
template <std::size_t N>
void fill(CK_UTF8CHAR (&field)[N], std::string_view text) {
    std::fill(std::begin(field), std::end(field), ' ');
    std::copy_n(text.begin(), std::min(N, text.size()), std::begin(field));
}

// Derived from the token's names, so that it stays the same across runs and machines for the
// same slot, as applications that remember tokens expect.
std::string serialNumber() {
    const std::string name =
        std::string(card::driverClassID) + "/" + std::string(card::userInstanceID);
    const Bytes hash = platform::crypto::sha1(bytesOf(name));
    return encoding::toHexString(ByteView(hash).first(8));
}

}  // namespace

CK_INFO moduleInfo() {
    CK_INFO info{};
    info.cryptokiVersion = {2, 40};
    fill(info.manufacturerID, "keyloft");
    info.flags = 0;
    fill(info.libraryDescription, "keyloft virtual card");
    info.libraryVersion = moduleVersion;
    return info;
}

CK_SLOT_INFO slotInfo() {
    CK_SLOT_INFO info{};
    fill(info.slotDescription, "keyloft virtual card");
    fill(info.manufacturerID, "keyloft");
    info.flags = CKF_TOKEN_PRESENT;
    info.hardwareVersion = moduleVersion;
    info.firmwareVersion = moduleVersion;
    return info;
}

CK_TOKEN_INFO tokenInfo(CK_ULONG sessionCount, CK_ULONG readWriteSessionCount) {
    CK_TOKEN_INFO info{};
    fill(info.label, "keyloft");
    fill(info.manufacturerID, "keyloft");
    // Where new keys are made: "software" or "TPM 2.0" and its maker. Asked once: the key
    // processors of a process stay what they were when first asked.
    static const std::string keyProcessor = platform::key_processor::describeDefaultKeyProcessor();
    fill(info.model, keyProcessor);
    fill(info.serialNumber, serialNumber());
    // Applications use and manage identities without a PIN, as the tool does.
    info.flags = CKF_TOKEN_INITIALIZED | CKF_RNG;
    info.ulMaxSessionCount = CK_EFFECTIVELY_INFINITE;
    info.ulSessionCount = sessionCount;
    info.ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    info.ulRwSessionCount = readWriteSessionCount;
    info.ulMaxPinLen = 0;
    info.ulMinPinLen = 0;
    info.ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
    info.ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    info.ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
    info.ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    info.hardwareVersion = moduleVersion;
    info.firmwareVersion = moduleVersion;
    fill(info.utcTime, "");
    return info;
}

}  // namespace keyloft::pkcs11
