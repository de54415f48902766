#include "platform/key_processor/tpm_key_processor.hpp"

#include <openssl/ecdsa.h>
#include <tss2/tss2_mu.h>

#include <algorithm>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_processor/tpm_connection.hpp"
#include "platform/key_processor/tpm_rsa_key.hpp"
#include "platform/key_service/ec_key_builder.hpp"

namespace keyloft::platform::key_processor {
namespace {

using openssl::EcdsaSignature;

[[noreturn]] void refuse(const std::string& why) {
    throw PlatformError("Key processor: the key cannot be used here: " + why);
}

TPMI_ECC_CURVE curveFor(int sizeInBits) {
    return sizeInBits == 256 ? TPM2_ECC_NIST_P256 : TPM2_ECC_NIST_P384;
}

// What the TPM signs with and agrees with (EC) or decrypts with (RSA); sign and decrypt together
// need a null scheme, which leaves the scheme and hash to each command.
TPM2B_PUBLIC keyTemplate(int sizeInBits) {
    TPM2B_PUBLIC key{};
    auto& area = key.publicArea;
    area.nameAlg = TPM2_ALG_SHA256;
    area.objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                            TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH |
                            TPMA_OBJECT_SIGN_ENCRYPT | TPMA_OBJECT_DECRYPT | TPMA_OBJECT_NODA;
    if (isRsaKeySize(sizeInBits)) {
        area.type = TPM2_ALG_RSA;
        auto& rsa = area.parameters.rsaDetail;
        rsa.symmetric.algorithm = TPM2_ALG_NULL;
        rsa.scheme.scheme = TPM2_ALG_NULL;
        rsa.keyBits = static_cast<TPMI_RSA_KEY_BITS>(sizeInBits);
        rsa.exponent = 0;  // 65537
        return key;
    }
    area.type = TPM2_ALG_ECC;
    auto& ecc = area.parameters.eccDetail;
    ecc.symmetric.algorithm = TPM2_ALG_NULL;
    ecc.scheme.scheme = TPM2_ALG_NULL;
    ecc.curveID = curveFor(sizeInBits);
    ecc.kdf.scheme = TPM2_ALG_NULL;
    return key;
}

// Binds the header to the key: the TPM refuses the key under any other header. Anyone holding the
// identifier can compute it; what keeps the key is that its private blob opens in this TPM only.
// noDA in the template keeps a changed header from counting against the TPM's lockout.
crypto::SecretBytes authValueFor(ByteView header) {
    static constexpr std::string_view label = "keyloft tpm key v1";
    Bytes input(label.begin(), label.end());
    input.insert(input.end(), header.begin(), header.end());
    return crypto::secretOf(crypto::sha256(input));
}

Bytes encodeIdentifier(const Bytes& header, const TpmKeyBlobs& blobs) {
    Bytes out(header.size() + sizeof blobs.publicArea + sizeof blobs.privateArea);
    std::copy(header.begin(), header.end(), out.begin());
    std::size_t offset = header.size();
    if (Tss2_MU_TPM2B_PUBLIC_Marshal(&blobs.publicArea, out.data(), out.size(), &offset) !=
            TSS2_RC_SUCCESS ||
        Tss2_MU_TPM2B_PRIVATE_Marshal(&blobs.privateArea, out.data(), out.size(), &offset) !=
            TSS2_RC_SUCCESS) {
        throw PlatformError("Key processor: the TPM's key blobs could not be stored");
    }
    out.resize(offset);
    return out;
}

// The blobs after the header, which must be exactly as encodeIdentifier wrote them (the
// unmarshaller lets a size field disagree with its content) and describe a key of the header's
// curve made from our template.
TpmKeyBlobs decodeBlobs(ByteView identifier, const ObjectIdentifierHeader& header) {
    TpmKeyBlobs blobs;
    std::size_t offset = ObjectIdentifierHeader::size;
    if (Tss2_MU_TPM2B_PUBLIC_Unmarshal(identifier.data(), identifier.size(), &offset,
                                       &blobs.publicArea) != TSS2_RC_SUCCESS ||
        Tss2_MU_TPM2B_PRIVATE_Unmarshal(identifier.data(), identifier.size(), &offset,
                                        &blobs.privateArea) != TSS2_RC_SUCCESS ||
        offset != identifier.size() ||
        !std::ranges::equal(
            encodeIdentifier(
                Bytes(identifier.begin(), identifier.begin() + ObjectIdentifierHeader::size),
                blobs),
            identifier)) {
        refuse("damaged object identifier");
    }
    const auto expected = keyTemplate(header.sizeInBits).publicArea;
    const auto& area = blobs.publicArea.publicArea;
    const bool sameKind =
        area.type == TPM2_ALG_RSA
            ? area.parameters.rsaDetail.keyBits == expected.parameters.rsaDetail.keyBits &&
                  area.parameters.rsaDetail.exponent == 0 &&
                  area.parameters.rsaDetail.scheme.scheme == TPM2_ALG_NULL &&
                  area.parameters.rsaDetail.symmetric.algorithm == TPM2_ALG_NULL &&
                  area.unique.rsa.size * 8 == header.sizeInBits
            : area.parameters.eccDetail.curveID == expected.parameters.eccDetail.curveID &&
                  area.parameters.eccDetail.scheme.scheme == TPM2_ALG_NULL;
    if (area.type != expected.type || area.nameAlg != expected.nameAlg ||
        area.objectAttributes != expected.objectAttributes || !sameKind) {
        refuse("the TPM key does not match its object identifier");
    }
    return blobs;
}

Bytes padded(const TPM2B_ECC_PARAMETER& value, std::size_t size) {
    if (value.size > size) refuse("the TPM returned a coordinate longer than the curve's");
    Bytes out(size - value.size, 0);
    out.insert(out.end(), value.buffer, value.buffer + value.size);
    return out;
}

// The digest as ECDSA uses it, at the order's length: longer input keeps its leftmost bytes (the
// orders of P-256 and P-384 fill whole bytes), shorter input is the same number zero-padded. The
// TPM signs only digests of a hash's length, and this one is the hash of the curve's size.
Bytes atOrderLength(ByteView digest, std::size_t orderBytes) {
    if (digest.size() >= orderBytes) {
        const ByteView leftmost = digest.first(orderBytes);
        return {leftmost.begin(), leftmost.end()};
    }
    Bytes out(orderBytes - digest.size(), 0);
    out.insert(out.end(), digest.begin(), digest.end());
    return out;
}

Bytes derSignature(const Bytes& r, const Bytes& s) {
    EcdsaSignature signature(ECDSA_SIG_new());
    openssl::Bignum rNumber(BN_bin2bn(r.data(), static_cast<int>(r.size()), nullptr));
    openssl::Bignum sNumber(BN_bin2bn(s.data(), static_cast<int>(s.size()), nullptr));
    if (!signature || !rNumber || !sNumber ||
        ECDSA_SIG_set0(signature.get(), rNumber.get(), sNumber.get()) != 1) {
        throw PlatformError("signing failed");
    }
    (void)rNumber.release();  // owned by the signature now
    (void)sNumber.release();
    unsigned char* raw = nullptr;
    const int size = i2d_ECDSA_SIG(signature.get(), &raw);
    const openssl::Buffer der(raw);
    if (size <= 0) throw PlatformError("signing failed");
    return {raw, raw + size};
}

class TpmProcessorKey : public ProcessorKey {
  public:
    TpmProcessorKey(std::shared_ptr<TpmConnection> connection, TpmKey key,
                    const ObjectIdentifierHeader& header,
                    std::shared_ptr<AuthenticationContext> context, PresenceGate& gate)
        : connection_(std::move(connection)),
          key_(std::move(key)),
          sizeInBits_(header.sizeInBits),
          accessControl_(header.accessControl),
          context_(context ? std::move(context) : std::make_shared<AuthenticationContext>()),
          gate_(gate) {
        const auto size = static_cast<std::size_t>(key_service::fieldBytes(sizeInBits_));
        const auto& point = key_.blobs.publicArea.publicArea.unique.ecc;
        point_ = {0x04};
        const auto x = padded(point.x, size);
        const auto y = padded(point.y, size);
        point_.insert(point_.end(), x.begin(), x.end());
        point_.insert(point_.end(), y.begin(), y.end());
    }

    // The identifier is the key's identity: it holds the blobs and the header the auth value
    // comes from.
    const Bytes& objectIdentifier() const override { return key_.identity; }
    std::uint32_t accessControl() const override { return accessControl_; }
    std::string keyType() const override { return std::string(keyTypeEC); }
    PublicKeyAttributes publicKeyAttributes() const override {
        return {std::string(keyTypeEC), sizeInBits_, point_};
    }

    Bytes sign(key_service::SignatureAlgorithm algorithm, ByteView message) const override {
        Bytes digest;
        if (algorithm == key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384) {
            digest = crypto::sha384(message);
        } else if (algorithm == key_service::SignatureAlgorithm::ecdsaSignatureDigestX962) {
            digest.assign(message.begin(), message.end());
        } else {
            refuse("the algorithm does not suit an EC key");
        }
        authorize();
        const auto orderBytes = static_cast<std::size_t>(key_service::fieldBytes(sizeInBits_));
        const auto [r, s] =
            connection_->signEcdsa(key_, atOrderLength(digest, orderBytes),
                                   sizeInBits_ == 256 ? TPM2_ALG_SHA256 : TPM2_ALG_SHA384);
        return derSignature(r, s);
    }

    crypto::SecretBytes agree(ByteView peerPoint) const override {
        const auto size = static_cast<std::size_t>(key_service::fieldBytes(sizeInBits_));
        if (peerPoint.size() != 1 + 2 * size || peerPoint[0] != 0x04)
            throw PlatformError("key agreement failed");
        authorize();
        auto shared = connection_->ecdhZGen(key_, peerPoint.subspan(1, size),
                                            peerPoint.subspan(1 + size, size));
        if (shared.size() > size) throw PlatformError("key agreement failed");
        // Fixed length, as the key service gives it.
        shared.insert(shared.begin(), size - shared.size(), 0);
        return shared;
    }

    void authorize() const override { confirmPresenceFor(accessControl_, *context_, gate_); }

  private:
    std::shared_ptr<TpmConnection> connection_;
    TpmKey key_;
    int sizeInBits_;
    std::uint32_t accessControl_;
    Bytes point_;
    std::shared_ptr<AuthenticationContext> context_;
    PresenceGate& gate_;
};

}  // namespace

TpmKeyIdentifier decodeTpmIdentifier(ByteView objectIdentifier) {
    const auto header = ObjectIdentifierHeader::decode(objectIdentifier);
    if (!header || header->backEnd != tpmBackEnd) refuse("unknown object identifier");
    if ((header->sizeInBits != 256 && header->sizeInBits != 384 &&
         !isRsaKeySize(header->sizeInBits)) ||
        !isSupportedAccessControl(header->accessControl)) {
        refuse("damaged object identifier");
    }
    return {*header, decodeBlobs(objectIdentifier, *header)};
}

void requireCurve(const std::vector<TPM2_ECC_CURVE>& curves, int sizeInBits) {
    if (std::ranges::find(curves, curveFor(sizeInBits)) == curves.end()) {
        const auto name = "P-" + std::to_string(sizeInBits);
        throw PlatformError("Key processor: this TPM cannot make " + name + " keys (it has no " +
                            name + " curve)");
    }
}

void requireRsaKeySize(TSS2_RC testResult, int sizeInBits) {
    if (testResult == TSS2_RC_SUCCESS) return;
    const auto name = "RSA-" + std::to_string(sizeInBits);
    throw PlatformError("Key processor: this TPM cannot make " + name + " keys (it refuses " +
                        name + "'s parameters)");
}

std::shared_ptr<TpmConnection> TpmKeyProcessor::connection() {
    const std::lock_guard lock(mutex_);
    if (!connection_) connection_ = TpmConnection::open(tcti_);
    return connection_;
}

std::unique_ptr<ProcessorKey> TpmKeyProcessor::keyOf(
    std::shared_ptr<TpmConnection> tpm, TpmKey key, const ObjectIdentifierHeader& header,
    std::shared_ptr<AuthenticationContext> context) {
    if (isRsaKeySize(header.sizeInBits))
        return makeTpmRsaKey(std::move(tpm), std::move(key), header, std::move(context), gate_);
    return std::make_unique<TpmProcessorKey>(std::move(tpm), std::move(key), header,
                                             std::move(context), gate_);
}

void TpmKeyProcessor::connect() {
    connection();
}

std::string TpmKeyProcessor::description() {
    const auto& manufacturer = connection()->manufacturer();
    return manufacturer.empty() ? "TPM 2.0" : "TPM 2.0 " + manufacturer;
}

std::unique_ptr<ProcessorKey> TpmKeyProcessor::createKey(int sizeInBits,
                                                         std::uint32_t accessControl) {
    checkNewKeyRequest(sizeInBits, accessControl);
    const ObjectIdentifierHeader header{tpmBackEnd, static_cast<std::uint16_t>(sizeInBits),
                                        accessControl};
    const auto headerBytes = header.encode();
    const auto authValue = authValueFor(headerBytes);
    const auto tpm = connection();
    if (isRsaKeySize(sizeInBits)) {
        requireRsaKeySize(tpm->testRsaKeySize(sizeInBits), sizeInBits);
    } else {
        requireCurve(tpm->curves(), sizeInBits);
    }
    const auto blobs = tpm->create(keyTemplate(sizeInBits), authValue);
    // Loaded when first used.
    return keyOf(tpm, TpmKey{encodeIdentifier(headerBytes, blobs), blobs, authValue}, header,
                 nullptr);
}

std::unique_ptr<ProcessorKey> TpmKeyProcessor::rebuildKey(
    ByteView objectIdentifier, std::shared_ptr<AuthenticationContext> context) {
    const auto [header, blobs] = decodeTpmIdentifier(objectIdentifier);
    TpmKey key{Bytes(objectIdentifier.begin(), objectIdentifier.end()), blobs,
               authValueFor(objectIdentifier.first(ObjectIdentifierHeader::size))};
    const auto tpm = connection();
    tpm->load(key);
    return keyOf(tpm, std::move(key), header, std::move(context));
}

}  // namespace keyloft::platform::key_processor
