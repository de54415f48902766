#include "platform/key_processor/tpm_rsa_key.hpp"

#include <algorithm>
#include <array>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/key_service/rsa_encoding.hpp"

namespace keyloft::platform::key_processor {
namespace {

using crypto::DigestAlgorithm;
using key_service::SignatureAlgorithm;

constexpr std::array<std::uint8_t, 3> publicExponent{0x01, 0x00, 0x01};

std::optional<TPMI_ALG_HASH> tpmHashOf(DigestAlgorithm hash) {
    switch (hash) {
        case DigestAlgorithm::sha1:
            return TPM2_ALG_SHA1;
        case DigestAlgorithm::sha256:
            return TPM2_ALG_SHA256;
        case DigestAlgorithm::sha384:
            return TPM2_ALG_SHA384;
        case DigestAlgorithm::sha512:
            return TPM2_ALG_SHA512;
        default:
            return std::nullopt;
    }
}

class TpmRsaKey : public ProcessorKey {
  public:
    TpmRsaKey(std::shared_ptr<TpmConnection> connection, TpmKey key,
              const ObjectIdentifierHeader& header, std::shared_ptr<AuthenticationContext> context,
              PresenceGate& gate)
        : connection_(std::move(connection)),
          key_(std::move(key)),
          sizeInBits_(header.sizeInBits),
          accessControl_(header.accessControl),
          context_(context ? std::move(context) : std::make_shared<AuthenticationContext>()),
          gate_(gate) {
        const auto& modulus = key_.blobs.publicArea.publicArea.unique.rsa;
        publicKey_ = key_service::rsaPublicKeyDer({modulus.buffer, modulus.size}, publicExponent);
    }

    const Bytes& objectIdentifier() const override { return key_.identity; }
    std::uint32_t accessControl() const override { return accessControl_; }
    std::string keyType() const override { return std::string(keyTypeRSA); }
    PublicKeyAttributes publicKeyAttributes() const override {
        return {std::string(keyTypeRSA), sizeInBits_, publicKey_};
    }

    Bytes sign(SignatureAlgorithm algorithm, ByteView message) const override {
        Bytes digestInfo;
        switch (algorithm) {
            case SignatureAlgorithm::rsaSignatureDigestPKCS1v15Raw:
                digestInfo.assign(message.begin(), message.end());
                break;
            case SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA256:
                digestInfo =
                    key_service::digestInfo(DigestAlgorithm::sha256, crypto::sha256(message));
                break;
            case SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384:
                digestInfo =
                    key_service::digestInfo(DigestAlgorithm::sha384, crypto::sha384(message));
                break;
            default:
                throw PlatformError("Key processor: the algorithm does not suit an RSA key");
        }
        return privateOperation(key_service::pkcs1SignaturePadding(digestInfo, modulusBytes()));
    }

    Bytes signRsaPss(ByteView digest,
                     const key_service::RsaPssParameters& parameters) const override {
        return privateOperation(key_service::pssSignaturePadding(
            digest, parameters.hash, parameters.mgf1Hash, parameters.saltLength, sizeInBits_));
    }

    crypto::SecretBytes decryptRsaOaep(
        ByteView ciphertext, const key_service::RsaOaepParameters& parameters) const override {
        // The TPM's OAEP takes one hash for both, and a label only with a terminating zero (which
        // it hashes); other parameters get the raw operation, and the block is decoded here.
        const auto hash = tpmHashOf(parameters.hash);
        const auto& label = parameters.label;
        const bool inTpm =
            hash && parameters.mgf1Hash == parameters.hash && (label.empty() || label.back() == 0);
        authorize();
        try {
            if (inTpm) {
                return connection_->rsaDecrypt(
                    key_, ciphertext,
                    {.scheme = TPM2_ALG_OAEP, .details = {.oaep = {.hashAlg = *hash}}}, label);
            }
            auto block = connection_->rsaDecrypt(key_, ciphertext, {.scheme = TPM2_ALG_NULL}, {});
            if (block.size() > modulusBytes()) throw PlatformError("decryption failed");
            block.insert(block.begin(), modulusBytes() - block.size(), 0);
            return key_service::oaepDecode(block, parameters);
        } catch (const PlatformError&) {
            throw PlatformError("decryption failed");  // nothing told of the padding
        }
    }

    crypto::SecretBytes agree(ByteView /*peerPoint*/) const override {
        throw PlatformError("key agreement failed: an RSA key agrees on nothing");
    }

    void authorize() const override { confirmPresenceFor(accessControl_, *context_, gate_); }

  private:
    std::size_t modulusBytes() const { return static_cast<std::size_t>((sizeInBits_ + 7) / 8); }

    // The raw private operation on an encoded block, as long as the modulus.
    Bytes privateOperation(const Bytes& encoded) const {
        authorize();
        const auto result = connection_->rsaDecrypt(key_, encoded, {.scheme = TPM2_ALG_NULL}, {});
        if (result.size() > modulusBytes()) throw PlatformError("signing failed");
        Bytes signature(modulusBytes() - result.size(), 0);
        signature.insert(signature.end(), result.begin(), result.end());
        return signature;
    }

    std::shared_ptr<TpmConnection> connection_;
    TpmKey key_;
    int sizeInBits_;
    std::uint32_t accessControl_;
    Bytes publicKey_;
    std::shared_ptr<AuthenticationContext> context_;
    PresenceGate& gate_;
};

}  // namespace

std::unique_ptr<ProcessorKey> makeTpmRsaKey(std::shared_ptr<TpmConnection> connection, TpmKey key,
                                            const ObjectIdentifierHeader& header,
                                            std::shared_ptr<AuthenticationContext> context,
                                            PresenceGate& gate) {
    return std::make_unique<TpmRsaKey>(std::move(connection), std::move(key), header,
                                       std::move(context), gate);
}

}  // namespace keyloft::platform::key_processor
