#include "platform/key_processor/soft_key_processor.hpp"

#include "base/error.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/crypto/random.hpp"
#include "platform/key_processor/device_key.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr std::size_t nonceSize = 12;
constexpr std::size_t tagSize = 16;

[[noreturn]] void refuse(const std::string& why) {
    throw PlatformError("Key processor: the key cannot be used here: " + why);
}

// AES-256-GCM under the device key; the header is authenticated, not encrypted. Of an EC key only
// the private scalar is sealed (the public point follows from it), of an RSA key its DER
// RSAPrivateKey.
Bytes seal(const crypto::SecretBytes& deviceKey, const Bytes& header,
           const crypto::SecretBytes& plaintext) {
    Bytes out = header;
    out.resize(header.size() + nonceSize + plaintext.size() + tagSize);
    std::uint8_t* nonce = out.data() + header.size();
    if (!crypto::randomBytes({nonce, nonceSize}))
        throw PlatformError("Key processor: the random generator failed");
    openssl::CipherContext context(EVP_CIPHER_CTX_new());
    int written = 0;
    if (!context ||
        EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, deviceKey.data(), nonce) !=
            1 ||
        EVP_EncryptUpdate(context.get(), nullptr, &written, header.data(),
                          static_cast<int>(header.size())) != 1 ||
        EVP_EncryptUpdate(context.get(), nonce + nonceSize, &written, plaintext.data(),
                          static_cast<int>(plaintext.size())) != 1 ||
        EVP_EncryptFinal_ex(context.get(), nonce + nonceSize + written, &written) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, tagSize,
                            out.data() + out.size() - tagSize) != 1) {
        throw PlatformError("Key processor: sealing the key failed");
    }
    return out;
}

crypto::SecretBytes open(const crypto::SecretBytes& deviceKey, ByteView identifier) {
    if (identifier.size() <= ObjectIdentifierHeader::size + nonceSize + tagSize)
        refuse("identifier too short");
    const auto header = identifier.first(ObjectIdentifierHeader::size);
    const auto nonce = identifier.subspan(ObjectIdentifierHeader::size, nonceSize);
    const auto sealed =
        identifier.subspan(ObjectIdentifierHeader::size + nonceSize,
                           identifier.size() - ObjectIdentifierHeader::size - nonceSize - tagSize);
    Bytes tag(identifier.end() - tagSize, identifier.end());
    crypto::SecretBytes plaintext(sealed.size() + 16);
    openssl::CipherContext context(EVP_CIPHER_CTX_new());
    int written = 0;
    int ignored = 0;
    if (!context ||
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, deviceKey.data(),
                           nonce.data()) != 1 ||
        EVP_DecryptUpdate(context.get(), nullptr, &ignored, header.data(),
                          static_cast<int>(header.size())) != 1 ||
        EVP_DecryptUpdate(context.get(), plaintext.data(), &written, sealed.data(),
                          static_cast<int>(sealed.size())) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, tagSize, tag.data()) != 1 ||
        EVP_DecryptFinal_ex(context.get(), plaintext.data() + written, &ignored) != 1) {
        refuse("it was made by another device or has been changed");
    }
    plaintext.resize(sealed.size());
    return plaintext;
}

class SoftProcessorKey : public ProcessorKey {
  public:
    SoftProcessorKey(key_service::SoftwareKey key, Bytes identifier, std::uint32_t accessControl,
                     std::shared_ptr<AuthenticationContext> context, PresenceGate& gate)
        : key_(std::move(key)),
          identifier_(std::move(identifier)),
          accessControl_(accessControl),
          context_(context ? std::move(context) : std::make_shared<AuthenticationContext>()),
          gate_(gate) {}

    const Bytes& objectIdentifier() const override { return identifier_; }
    std::uint32_t accessControl() const override { return accessControl_; }
    std::string keyType() const override { return key_.keyType(); }
    PublicKeyAttributes publicKeyAttributes() const override { return key_.publicKeyAttributes(); }

    Bytes sign(key_service::SignatureAlgorithm algorithm, ByteView message) const override {
        if (!key_.supports(algorithm)) refuse("the algorithm does not suit the key's type");
        authorize();
        return key_.sign(algorithm, message);
    }
    crypto::SecretBytes agree(ByteView peerPoint) const override {
        authorize();
        return key_.agree(peerPoint);
    }
    Bytes signRsaPss(ByteView digest,
                     const key_service::RsaPssParameters& parameters) const override {
        if (key_.keyType() != keyTypeRSA) refuse("the algorithm does not suit the key's type");
        authorize();
        return key_.signRsaPss(digest, parameters);
    }
    crypto::SecretBytes decryptRsaOaep(
        ByteView ciphertext, const key_service::RsaOaepParameters& parameters) const override {
        if (key_.keyType() != keyTypeRSA) refuse("the algorithm does not suit the key's type");
        authorize();
        return key_.decryptRsaOaep(ciphertext, parameters);
    }

    void authorize() const override { confirmPresenceFor(accessControl_, *context_, gate_); }

  private:
    key_service::SoftwareKey key_;
    Bytes identifier_;
    std::uint32_t accessControl_;
    std::shared_ptr<AuthenticationContext> context_;
    PresenceGate& gate_;
};

}  // namespace

const crypto::SecretBytes& SoftKeyProcessor::deviceKey() {
    if (!deviceKey_) deviceKey_ = loadOrCreateDeviceKey(deviceKeyFile_);
    return *deviceKey_;
}

std::unique_ptr<ProcessorKey> SoftKeyProcessor::createKey(int sizeInBits,
                                                          std::uint32_t accessControl) {
    checkNewKeyRequest(sizeInBits, accessControl);
    const bool rsa = isRsaKeySize(sizeInBits);
    auto key = rsa ? key_service::SoftwareKey::generateRSA(sizeInBits)
                   : key_service::SoftwareKey::generateEC(sizeInBits);
    const ObjectIdentifierHeader header{softBackEnd, static_cast<std::uint16_t>(sizeInBits),
                                        accessControl};
    auto identifier = seal(deviceKey(), header.encode(),
                           rsa ? key.externalRepresentation() : key.privateScalar());
    return std::make_unique<SoftProcessorKey>(std::move(key), std::move(identifier), accessControl,
                                              nullptr, gate_);
}

std::unique_ptr<ProcessorKey> SoftKeyProcessor::rebuildKey(
    ByteView objectIdentifier, std::shared_ptr<AuthenticationContext> context) {
    const auto header = ObjectIdentifierHeader::decode(objectIdentifier);
    if (!header || header->backEnd != softBackEnd) refuse("unknown object identifier");
    const auto sealed = open(deviceKey(), objectIdentifier);
    auto key = isRsaKeySize(header->sizeInBits)
                   ? key_service::SoftwareKey::fromExternalRepresentation(keyTypeRSA, sealed)
                   : key_service::SoftwareKey::fromPrivateScalar(header->sizeInBits, sealed);
    if (key.sizeInBits() != header->sizeInBits) refuse("the key does not match its header");
    return std::make_unique<SoftProcessorKey>(
        std::move(key), Bytes(objectIdentifier.begin(), objectIdentifier.end()),
        header->accessControl, std::move(context), gate_);
}

}  // namespace keyloft::platform::key_processor
