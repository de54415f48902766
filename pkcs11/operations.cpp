#include "pkcs11/operations.hpp"

#include "base/error.hpp"
#include "base/public_key_attributes.hpp"
#include "der/digest_info.hpp"
#include "der/ecdsa_signature.hpp"
#include "der/object_identifiers.hpp"
#include "der/reader.hpp"
#include "platform/key_service/rsa_encryption.hpp"
#include "platform/key_service/signature_check.hpp"

namespace keyloft::pkcs11 {
namespace {

using platform::crypto::DigestAlgorithm;

std::size_t fieldSize(const KeyFacts& key) {
    return (key.sizeInBits + 7) / 8;
}

// Parameters of type T, or none at all for a mechanism that takes none.
template <class T>
const T* parametersOf(const CK_MECHANISM& mechanism) {
    if (mechanism.pParameter == nullptr || mechanism.ulParameterLen != sizeof(T))
        throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
    return static_cast<const T*>(mechanism.pParameter);
}

void expectNoParameters(const CK_MECHANISM& mechanism) {
    if (mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0)
        throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
}

// The key object must be a private key of the mechanism's key type that allows the usage.
const Mechanism& checkedMechanism(const CK_MECHANISM& mechanism, const TokenObject& key,
                                  CK_ATTRIBUTE_TYPE usage) {
    const Mechanism* found = findMechanism(mechanism.mechanism);
    if (found == nullptr) throw CryptokiError(CKR_MECHANISM_INVALID);
    const CK_OBJECT_CLASS keyClass =
        usage == CKA_VERIFY || usage == CKA_ENCRYPT ? CKO_PUBLIC_KEY : CKO_PRIVATE_KEY;
    if (!key.key || key.identity.objectClass != keyClass)
        throw CryptokiError(CKR_KEY_TYPE_INCONSISTENT);
    if (found->scheme == Scheme::digest || found->scheme == Scheme::ecKeyPair ||
        found->scheme == Scheme::rsaKeyPair || keyTypeOf(found->scheme) != key.key->keyType)
        throw CryptokiError(CKR_KEY_TYPE_INCONSISTENT);
    const CK_FLAGS needed = usage == CKA_SIGN      ? CKF_SIGN
                            : usage == CKA_VERIFY  ? CKF_VERIFY
                            : usage == CKA_DECRYPT ? CKF_DECRYPT
                            : usage == CKA_ENCRYPT ? CKF_ENCRYPT
                                                   : CKF_DERIVE;
    if ((mechanismInfo(*found).flags & needed) == 0) throw CryptokiError(CKR_MECHANISM_INVALID);
    if (!key.allows(usage)) throw CryptokiError(CKR_KEY_FUNCTION_NOT_PERMITTED);
    return *found;
}

// The facts of a key checked for the mechanism and usage.
KeyFacts checkedKey(const CK_MECHANISM& mechanism, const TokenObject& key,
                    CK_ATTRIBUTE_TYPE usage) {
    checkedMechanism(mechanism, key, usage);
    return *key.key;
}

DigestAlgorithm digestOrInvalid(std::optional<DigestAlgorithm> digest) {
    if (!digest) throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
    return *digest;
}

ByteView digestOid(DigestAlgorithm digest) {
    switch (digest) {
        case DigestAlgorithm::sha1:
            return der::oid::idSha1;
        case DigestAlgorithm::sha224:
            return der::oid::idSha224;
        case DigestAlgorithm::sha256:
            return der::oid::idSha256;
        case DigestAlgorithm::sha384:
            return der::oid::idSha384;
        case DigestAlgorithm::sha512:
            return der::oid::idSha512;
    }
    throw CryptokiError(CKR_GENERAL_ERROR);
}

}  // namespace

SignatureInput::SignatureInput(const CK_MECHANISM& mechanism, const TokenObject& key,
                               CK_ATTRIBUTE_TYPE usage)
    : mechanism_(&checkedMechanism(mechanism, key, usage)), key_(*key.key) {
    if (mechanism_->scheme != Scheme::rsaPss) {
        expectNoParameters(mechanism);
        return;
    }
    const auto* pss = parametersOf<CK_RSA_PKCS_PSS_PARAMS>(mechanism);
    const auto hash = digestOrInvalid(digestOfMechanism(pss->hashAlg));
    const auto mgf = digestOrInvalid(digestOfMgf(pss->mgf));
    // The hashed variants sign with the hash they name.
    if (mechanism_->digest && *mechanism_->digest != hash)
        throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
    // The salt, the hash and two bytes must fit the encoded message; compared without a sum, which
    // a salt length near the type's maximum would wrap.
    const std::size_t encodedSize = (key_.sizeInBits - 1 + 7) / 8;
    const std::size_t fixedPart = platform::crypto::digestSize(hash) + 2;
    if (encodedSize < fixedPart || pss->sLen > encodedSize - fixedPart)
        throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
    pss_ = platform::key_service::RsaPssParameters{hash, mgf, pss->sLen};
}

std::size_t SignatureInput::signatureSize() const {
    return key_.keyType == CKK_EC ? 2 * fieldSize(key_) : fieldSize(key_);
}

Bytes SignatureInput::signedBytes() const {
    const Bytes input =
        mechanism_->digest ? platform::crypto::digest(*mechanism_->digest, data_) : Bytes(data_);
    switch (mechanism_->scheme) {
        case Scheme::ecdsa:
            if (input.empty()) throw CryptokiError(CKR_DATA_LEN_RANGE);
            return input;
        case Scheme::rsaPkcs1: {
            Bytes block = mechanism_->digest
                              ? der::encodeDigestInfo(digestOid(*mechanism_->digest), input)
                              : input;
            // An empty block pads to a signature that OpenSSL, and so the module's own
            // verification, cannot check.
            if (block.empty() || block.size() + 11 > fieldSize(key_))
                throw CryptokiError(CKR_DATA_LEN_RANGE);
            return block;
        }
        case Scheme::rsaPss:
            if (input.size() != platform::crypto::digestSize(pss_->hash))
                throw CryptokiError(CKR_DATA_LEN_RANGE);
            return input;
        case Scheme::ecdh:
        case Scheme::rsaOaep:
        case Scheme::digest:
        case Scheme::ecKeyPair:
        case Scheme::rsaKeyPair:
            break;
    }
    throw CryptokiError(CKR_MECHANISM_INVALID);
}

Bytes SignOperation::sign(const platform::key_service::PrivateKey& handle) const {
    const Bytes input = signedBytes();
    switch (scheme()) {
        case Scheme::ecdsa: {
            const Bytes signature = handle.sign(
                platform::key_service::SignatureAlgorithm::ecdsaSignatureDigestX962, input);
            auto raw = der::rawEcdsaSignature(signature, fieldSize(key()));
            if (!raw) throw CryptokiError(CKR_FUNCTION_FAILED);
            return std::move(*raw);
        }
        case Scheme::rsaPkcs1:
            return handle.sign(
                platform::key_service::SignatureAlgorithm::rsaSignatureDigestPKCS1v15Raw, input);
        default:
            return handle.signRsaPss(input, pss());
    }
}

void VerifyOperation::verify(ByteView signature) const {
    if (signature.size() != signatureSize()) throw CryptokiError(CKR_SIGNATURE_LEN_RANGE);
    const Bytes input = signedBytes();
    const platform::key_service::SignatureCheck check(
        key().keyType == CKK_EC ? keyTypeEC : keyTypeRSA, key().publicKeyData);
    const bool good = scheme() == Scheme::ecdsa      ? check.ecdsa(input, signature)
                      : scheme() == Scheme::rsaPkcs1 ? check.rsaPkcs1(input, signature)
                                                     : check.rsaPss(input, signature, pss());
    if (!good) throw CryptokiError(CKR_SIGNATURE_INVALID);
}

DigestOperation::DigestOperation(const CK_MECHANISM& mechanism)
    : stream_([&] {
          const Mechanism* found = findMechanism(mechanism.mechanism);
          if (found == nullptr || found->scheme != Scheme::digest)
              throw CryptokiError(CKR_MECHANISM_INVALID);
          expectNoParameters(mechanism);
          return platform::crypto::DigestStream(*found->digest);
      }()) {}

std::size_t DigestOperation::digestSize() const {
    return platform::crypto::digestSize(stream_.algorithm());
}

void DigestOperation::update(ByteView part) {
    stream_.update(part);
}

Bytes DigestOperation::finish() const {
    // The stream is copied so that a call that only asks for the size leaves it usable.
    platform::crypto::DigestStream copy = stream_;
    return copy.finish();
}

namespace {

platform::key_service::RsaOaepParameters oaepParametersOf(const CK_MECHANISM& mechanism) {
    const auto* oaep = parametersOf<CK_RSA_PKCS_OAEP_PARAMS>(mechanism);
    const bool hasLabel = oaep->ulSourceDataLen != 0;
    if ((oaep->source != CKZ_DATA_SPECIFIED && (oaep->source != 0 || hasLabel)) ||
        (hasLabel && oaep->pSourceData == nullptr)) {
        throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
    }
    const auto* label = static_cast<const std::uint8_t*>(oaep->pSourceData);
    return {digestOrInvalid(digestOfMechanism(oaep->hashAlg)),
            digestOrInvalid(digestOfMgf(oaep->mgf)),
            hasLabel ? Bytes(label, label + oaep->ulSourceDataLen) : Bytes{}};
}

}  // namespace

DecryptOperation::DecryptOperation(const CK_MECHANISM& mechanism, const TokenObject& key)
    : key_(checkedKey(mechanism, key, CKA_DECRYPT)), oaep_(oaepParametersOf(mechanism)) {}

EncryptOperation::EncryptOperation(const CK_MECHANISM& mechanism, const TokenObject& key)
    : key_(checkedKey(mechanism, key, CKA_ENCRYPT)) {
    if (mechanism.mechanism == CKM_RSA_PKCS_OAEP) {
        oaep_ = oaepParametersOf(mechanism);
    } else {
        expectNoParameters(mechanism);
    }
}

Bytes EncryptOperation::encrypt(ByteView message) const {
    try {
        return platform::key_service::encryptRsa(key_.publicKeyData, message, oaep_);
    } catch (const PlatformError&) {
        throw CryptokiError(CKR_DATA_LEN_RANGE);
    }
}

namespace {

// Called while a key's failure is handled: the input is to blame, unless the user's presence was
// not confirmed, which goes on as it is.
[[noreturn]] void blameInput(const PlatformError& error, CK_RV rv) {
    if (error.code() == presenceNotConfirmedCode) throw;
    throw CryptokiError(rv);
}

}  // namespace

platform::crypto::SecretBytes DecryptOperation::decrypt(
    const platform::key_service::PrivateKey& handle, ByteView ciphertext) const {
    if (ciphertext.size() != plaintextLimit()) throw CryptokiError(CKR_ENCRYPTED_DATA_LEN_RANGE);
    try {
        return handle.decryptRsaOaep(ciphertext, oaep_);
    } catch (const PlatformError& error) {
        blameInput(error, CKR_ENCRYPTED_DATA_INVALID);
    }
}

EcdhDerivation::EcdhDerivation(const CK_MECHANISM& mechanism, const TokenObject& key)
    : key_(checkedKey(mechanism, key, CKA_DERIVE)) {
    const auto* params = parametersOf<CK_ECDH1_DERIVE_PARAMS>(mechanism);
    if (params->kdf != CKD_NULL || params->ulSharedDataLen != 0 || params->pPublicData == nullptr)
        throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
    const ByteView given(params->pPublicData, params->ulPublicDataLen);
    const std::size_t pointSize = 1 + 2 * fieldSize(key_);
    if (given.size() == pointSize && given[0] == 0x04) {
        peerPoint_.assign(given.begin(), given.end());
        return;
    }
    // Applications also pass the point as CKA_EC_POINT holds it, inside an OCTET STRING.
    const auto wrapped = der::readSingleElement(given);
    if (!wrapped || wrapped->tag != der::tag::octetString || wrapped->content.size() != pointSize ||
        wrapped->content[0] != 0x04) {
        throw CryptokiError(CKR_MECHANISM_PARAM_INVALID);
    }
    peerPoint_.assign(wrapped->content.begin(), wrapped->content.end());
}

platform::crypto::SecretBytes EcdhDerivation::derive(
    const platform::key_service::PrivateKey& handle) const {
    try {
        return handle.agree(peerPoint_);
    } catch (const PlatformError& error) {
        // A point that is not on the key's curve.
        blameInput(error, CKR_MECHANISM_PARAM_INVALID);
    }
}

}  // namespace keyloft::pkcs11
