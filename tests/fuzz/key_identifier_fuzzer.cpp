// The stored forms of private keys read back: key-processor object identifiers and the sealed
// software key. The first byte says which, the rest is the stored form:
//   0  a soft identifier as stored: header, nonce, sealed scalar, tag;
//   1  a soft header and the scalar, sealed here under the device key so that what follows the
//      tag check is reached;
//   2  a TPM identifier: header and the marshalled public and private blobs;
//   3  a key type byte (even: EC, odd: RSA) and a sealed key's external representation, wrapped
//      here to the wrapping key and unwrapped again;
//   4  a wrapped private key as stored.
// Whatever the bytes, reading them gives a key or a PlatformError. A soft key has the header's
// size and asks for presence exactly when its access control demands it; an EC external
// representation read back is written the same.

#include <openssl/evp.h>

#include <cstdlib>
#include <fstream>

#include "base/error.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_processor/soft_key_processor.hpp"
#include "platform/key_processor/tpm_key_processor.hpp"
#include "platform/key_service/ecies.hpp"
#include "platform/key_service/software_key.hpp"
#include "support/temporary_folder.hpp"

namespace {

using keyloft::Bytes;
using keyloft::ByteView;
using keyloft::PlatformError;
namespace processor = keyloft::platform::key_processor;
namespace key_service = keyloft::platform::key_service;

void check(bool condition) {
    if (!condition) std::abort();
}

class CountingGate : public processor::PresenceGate {
  public:
    void confirm() override { ++asked; }
    int asked = 0;
};

// The soft processor's device key, written by this target, which seals identifiers with it too.
const Bytes deviceKey(32, 0x6B);
constexpr std::size_t nonceSize = 12;
constexpr std::size_t tagSize = 16;

// The soft processor over a device key this target knows, and a wrapping key made by it.
struct Soft {
    keyloft::testing::TemporaryFolder folder;
    CountingGate gate;
    processor::SoftKeyProcessor processor{deviceKeyFile(folder), gate};
    std::unique_ptr<processor::ProcessorKey> wrapping =
        processor.createKey(256, processor::accessControlPrivateKeyUsage);

    static std::filesystem::path deviceKeyFile(const keyloft::testing::TemporaryFolder& folder) {
        const auto file = folder.path() / "bastion.key";
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(deviceKey.data()),
                   static_cast<std::streamsize>(deviceKey.size()));
        return file;
    }
};

Soft& soft() {
    static Soft made;
    return made;
}

// AES-256-GCM under the device key with the header as additional data, as the soft processor
// stores a key; the nonce is fixed, since nothing here is kept.
Bytes sealed(ByteView header, ByteView scalar) {
    Bytes out(header.begin(), header.end());
    out.resize(header.size() + nonceSize + scalar.size() + tagSize);
    std::uint8_t* nonce = out.data() + header.size();
    keyloft::platform::openssl::CipherContext context(EVP_CIPHER_CTX_new());
    int written = 0;
    check(EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, deviceKey.data(), nonce) ==
              1 &&
          EVP_EncryptUpdate(context.get(), nullptr, &written, header.data(),
                            static_cast<int>(header.size())) == 1 &&
          EVP_EncryptUpdate(context.get(), nonce + nonceSize, &written, scalar.data(),
                            static_cast<int>(scalar.size())) == 1 &&
          EVP_EncryptFinal_ex(context.get(), nonce + nonceSize + written, &written) == 1 &&
          EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, tagSize,
                              out.data() + out.size() - tagSize) == 1);
    return out;
}

void softStored(ByteView identifier) {
    try {
        soft().processor.rebuildKey(identifier, nullptr);
    } catch (const PlatformError&) {
    }
}

void softSealed(ByteView input) {
    if (input.size() < processor::ObjectIdentifierHeader::size) return;
    const ByteView header = input.first(processor::ObjectIdentifierHeader::size);
    const auto decoded = processor::ObjectIdentifierHeader::decode(header);
    std::unique_ptr<processor::ProcessorKey> key;
    try {
        key = soft().processor.rebuildKey(
            sealed(header, input.subspan(processor::ObjectIdentifierHeader::size)), nullptr);
    } catch (const PlatformError&) {
        return;
    }
    check(decoded && key->publicKeyAttributes().sizeInBits == decoded->sizeInBits &&
          key->accessControl() == decoded->accessControl);
    const int before = soft().gate.asked;
    const Bytes digest(32, 0x44);
    try {
        key->sign(key_service::SignatureAlgorithm::ecdsaSignatureDigestX962, digest);
    } catch (const PlatformError&) {
        std::abort();
    }
    const bool biometry = (decoded->accessControl & processor::accessControlBiometryAny) != 0;
    check(soft().gate.asked - before == (biometry ? 1 : 0));
}

void tpm(ByteView identifier) {
    try {
        processor::decodeTpmIdentifier(identifier);
    } catch (const PlatformError&) {
    }
}

void sealedKey(ByteView input) {
    if (input.empty()) return;
    const auto keyType = input[0] % 2 == 0 ? keyloft::keyTypeEC : keyloft::keyTypeRSA;
    const ByteView data = input.subspan(1);
    const auto& wrapping = *soft().wrapping;
    const Bytes wrapped =
        key_service::ecies::encrypt(wrapping.publicKeyAttributes().externalRepresentation, data);
    const auto unwrapped =
        key_service::ecies::decrypt(wrapped, [&](ByteView point) { return wrapping.agree(point); });
    check(std::ranges::equal(unwrapped, data));
    try {
        const auto key = key_service::SoftwareKey::fromExternalRepresentation(keyType, unwrapped);
        if (keyType == keyloft::keyTypeEC) check(key.externalRepresentation() == unwrapped);
    } catch (const PlatformError&) {
    }
}

void wrappedStored(ByteView wrapped) {
    const auto& wrapping = *soft().wrapping;
    try {
        key_service::ecies::decrypt(wrapped, [&](ByteView point) { return wrapping.agree(point); });
    } catch (const PlatformError&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const ByteView input(data + 1, size - 1);
    switch (data[0] % 5) {
        case 0:
            softStored(input);
            break;
        case 1:
            softSealed(input);
            break;
        case 2:
            tpm(input);
            break;
        case 3:
            sealedKey(input);
            break;
        default:
            wrappedStored(input);
            break;
    }
    return 0;
}
