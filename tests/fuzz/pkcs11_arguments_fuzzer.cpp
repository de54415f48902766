// Templates and mechanisms as applications pass them, read by the module: operations started on
// each kind of object, derived-secret templates and the values read back from their objects, and
// key-pair templates. Whatever the arguments, the module answers with a CK_RV (CryptokiError);
// what it accepts it honours: a signature it makes verifies under the same mechanism, a ciphertext
// OpenSSL makes under the OAEP parameters decrypts to its message, a derived secret's object holds
// the length and value asked for, and a key pair is asked on the curve OpenSSL reads in the
// template.

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>

#include <array>
#include <cstdlib>
#include <optional>

#include "cryptoki_input.hpp"
#include "pkcs11/card_templates.hpp"
#include "pkcs11/derived_secret.hpp"
#include "pkcs11/operations.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/software_key.hpp"

namespace {

using keyloft::Bytes;
using keyloft::ByteView;
using keyloft::fuzz::CryptokiInput;
using keyloft::platform::key_service::SoftwareKey;
namespace pkcs11 = keyloft::pkcs11;

void check(bool condition) {
    if (!condition) std::abort();
}

pkcs11::TokenObject keyObject(CK_OBJECT_CLASS objectClass, const SoftwareKey& key,
                              std::initializer_list<CK_ATTRIBUTE_TYPE> usages) {
    const CK_KEY_TYPE keyType = key.keyType() == keyloft::keyTypeEC ? CKK_EC : CKK_RSA;
    pkcs11::AttributeSet attributes;
    attributes.setUlong(CKA_CLASS, objectClass);
    attributes.setUlong(CKA_KEY_TYPE, keyType);
    for (const auto usage : usages) attributes.setBool(usage, true);
    const auto publicKey = key.publicKeyAttributes();
    return {{objectClass, key.applicationLabel()},
            std::move(attributes),
            pkcs11::KeyFacts{keyType, static_cast<CK_ULONG>(publicKey.sizeInBits),
                             key.applicationLabel(), publicKey.externalRepresentation}};
}

SoftwareKey rsaKey() {
    keyloft::platform::openssl::Pkey key(EVP_RSA_gen(1024));
    return SoftwareKey::adopt(std::move(key));
}

// The kinds of objects an operation may be started on: keys of both types, and a certificate.
struct Objects {
    SoftwareKey ec = SoftwareKey::generateEC(256);
    SoftwareKey rsa = rsaKey();
    std::array<pkcs11::TokenObject, 5> list{
        keyObject(CKO_PRIVATE_KEY, ec, {CKA_SIGN, CKA_DERIVE}),
        keyObject(CKO_PUBLIC_KEY, ec, {CKA_VERIFY}),
        keyObject(CKO_PRIVATE_KEY, rsa, {CKA_SIGN, CKA_DECRYPT}),
        keyObject(CKO_PUBLIC_KEY, rsa, {CKA_VERIFY}),
        {{CKO_CERTIFICATE, {}}, {}, std::nullopt},
    };

    const pkcs11::TokenObject& pick(std::uint8_t choice) const {
        return list[choice % list.size()];
    }
    const SoftwareKey& privateKey(const pkcs11::TokenObject& object) const {
        return object.key->keyType == CKK_EC ? ec : rsa;
    }
    const pkcs11::TokenObject& publicObject(const pkcs11::TokenObject& object) const {
        return object.key->keyType == CKK_EC ? list[1] : list[3];
    }
};

const Objects& objects() {
    static const Objects made;
    return made;
}

// Runs the construction of an operation; nothing when the module refuses the arguments.
template <class Operation, class... Arguments>
std::optional<Operation> started(const Arguments&... arguments) {
    try {
        return Operation(arguments...);
    } catch (const pkcs11::CryptokiError&) {
        return std::nullopt;
    }
}

void signAndVerify(CryptokiInput& input) {
    const CK_MECHANISM mechanism = input.mechanism();
    const auto& key = objects().pick(input.byte());
    const ByteView data = input.bytes(input.byte());
    auto operation = started<pkcs11::SignOperation>(mechanism, key);
    if (!operation) return;
    operation->update(data);
    Bytes signature;
    try {
        signature = operation->sign(objects().privateKey(key));
    } catch (const pkcs11::CryptokiError& error) {
        check(error.rv() == CKR_DATA_LEN_RANGE);
        return;
    }
    check(signature.size() == operation->signatureSize());
    pkcs11::VerifyOperation verification(mechanism, objects().publicObject(key));
    verification.update(data);
    verification.verify(signature);
}

void verifyGiven(CryptokiInput& input) {
    const CK_MECHANISM mechanism = input.mechanism();
    const auto& key = objects().pick(input.byte());
    const ByteView data = input.bytes(input.byte());
    const ByteView signature = input.bytes(input.byte());
    auto operation = started<pkcs11::VerifyOperation>(mechanism, key);
    if (!operation) return;
    operation->update(data);
    try {
        operation->verify(signature);
    } catch (const pkcs11::CryptokiError&) {
    }
}

const EVP_MD* openSslDigest(CK_ULONG type) {
    switch (type) {
        case CKM_SHA_1:
        case CKG_MGF1_SHA1:
            return EVP_sha1();
        case CKM_SHA224:
        case CKG_MGF1_SHA224:
            return EVP_sha224();
        case CKM_SHA256:
        case CKG_MGF1_SHA256:
            return EVP_sha256();
        case CKM_SHA384:
        case CKG_MGF1_SHA384:
            return EVP_sha384();
        case CKM_SHA512:
        case CKG_MGF1_SHA512:
            return EVP_sha512();
        default:
            return nullptr;
    }
}

// The message encrypted by OpenSSL with the RSA key under the parameters as it reads them, or
// nothing when it takes none such.
std::optional<Bytes> openSslOaep(const CK_RSA_PKCS_OAEP_PARAMS& parameters, ByteView message) {
    const EVP_MD* hash = openSslDigest(parameters.hashAlg);
    const EVP_MD* mgf = openSslDigest(parameters.mgf);
    if (hash == nullptr || mgf == nullptr || parameters.source != CKZ_DATA_SPECIFIED) return {};
    keyloft::platform::openssl::PkeyContext context(
        EVP_PKEY_CTX_new(objects().rsa.handle(), nullptr));
    // OpenSSL takes the label over.
    auto* label = parameters.ulSourceDataLen == 0
                      ? nullptr
                      : static_cast<unsigned char*>(
                            OPENSSL_memdup(parameters.pSourceData, parameters.ulSourceDataLen));
    if (EVP_PKEY_encrypt_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), hash) != 1 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), mgf) != 1 ||
        EVP_PKEY_CTX_set0_rsa_oaep_label(context.get(), label,
                                         static_cast<int>(parameters.ulSourceDataLen)) != 1) {
        OPENSSL_free(label);
        return {};
    }
    Bytes out(static_cast<std::size_t>(EVP_PKEY_get_size(objects().rsa.handle())));
    std::size_t size = out.size();
    if (EVP_PKEY_encrypt(context.get(), out.data(), &size, message.data(), message.size()) != 1)
        return {};
    return out;
}

void decrypt(CryptokiInput& input) {
    const CK_MECHANISM mechanism = input.mechanism();
    const auto& key = objects().pick(input.byte());
    const ByteView message = input.bytes(input.byte());
    auto operation = started<pkcs11::DecryptOperation>(mechanism, key);
    if (!operation) return;
    const auto* parameters = static_cast<const CK_RSA_PKCS_OAEP_PARAMS*>(mechanism.pParameter);
    if (const auto ciphertext = openSslOaep(*parameters, message)) {
        const auto plaintext = operation->decrypt(objects().rsa, *ciphertext);
        check(std::ranges::equal(plaintext, message));
        return;
    }
    try {
        operation->decrypt(objects().rsa, message);
    } catch (const pkcs11::CryptokiError&) {
    }
}

void derive(CryptokiInput& input) {
    const CK_MECHANISM mechanism = input.mechanism();
    const auto& key = objects().pick(input.byte());
    auto derivation = started<pkcs11::EcdhDerivation>(mechanism, key);
    if (!derivation) return;
    try {
        check(derivation->derive(objects().ec).size() == 32);
    } catch (const pkcs11::CryptokiError& error) {
        check(error.rv() == CKR_MECHANISM_PARAM_INVALID);
    }
}

// The value of one attribute as C_GetAttributeValue gives it, or nothing.
std::optional<Bytes> read(const pkcs11::AttributeSet& attributes, CK_ATTRIBUTE_TYPE type) {
    CK_ATTRIBUTE request{type, nullptr, 0};
    if (attributes.copyInto({&request, 1}) != CKR_OK) return std::nullopt;
    Bytes value(request.ulValueLen);
    request.pValue = value.data();
    check(attributes.copyInto({&request, 1}) == CKR_OK && request.ulValueLen == value.size());
    return value;
}

// Reading back fills no buffer past its length and reports each attribute as it stands; a search
// template matches exactly when every attribute in it reads back with its value.
void readBack(const pkcs11::AttributeSet& attributes, std::span<CK_ATTRIBUTE> request) {
    bool matches = true;
    for (const auto& attribute : request) {
        const auto value = read(attributes, attribute.type);
        matches =
            matches && value && value->size() == attribute.ulValueLen &&
            (value->empty() || (attribute.pValue != nullptr &&
                                std::memcmp(value->data(), attribute.pValue, value->size()) == 0));
    }
    check(attributes.matches(request) == matches);

    std::vector<CK_ULONG> given;
    for (const auto& attribute : request) given.push_back(attribute.ulValueLen);
    const CK_RV rv = attributes.copyInto(request);
    bool complete = true;
    for (std::size_t i = 0; i < request.size(); ++i) {
        const auto value = read(attributes, request[i].type);
        if (!value) {
            check(request[i].ulValueLen == CK_UNAVAILABLE_INFORMATION);
            complete = false;
        } else if (request[i].pValue != nullptr && given[i] < value->size()) {
            check(request[i].ulValueLen == CK_UNAVAILABLE_INFORMATION);
            complete = false;
        } else {
            check(request[i].ulValueLen == value->size());
        }
    }
    check((rv == CKR_OK) == complete);
}

void deriveObject(CryptokiInput& input) {
    const keyloft::platform::crypto::SecretBytes secret(32, 0x5A);
    const auto keyTemplate = input.attributes();
    auto request = input.attributes();
    std::optional<pkcs11::TokenObject> object;
    try {
        object = pkcs11::derivedSecretObject(secret, keyTemplate, CKR_SESSION_READ_ONLY);
    } catch (const pkcs11::CryptokiError&) {
        return;
    }
    check(object->identity.objectClass == CKO_SECRET_KEY);
    const auto length = read(object->attributes, CKA_VALUE_LEN);
    check(length && length->size() == sizeof(CK_ULONG));
    CK_ULONG valueLength = 0;
    std::memcpy(&valueLength, length->data(), sizeof valueLength);
    check(valueLength > 0 && valueLength <= secret.size());
    if (const auto value = read(object->attributes, CKA_VALUE))
        check(*value == Bytes(secret.begin(), secret.begin() + valueLength));
    readBack(object->attributes, request);
}

// The curve OpenSSL reads in CKA_EC_PARAMS, as a key size.
int openSslCurveSize(const CK_ATTRIBUTE& parameters) {
    const auto* cursor = static_cast<const unsigned char*>(parameters.pValue);
    ASN1_OBJECT* curve =
        d2i_ASN1_OBJECT(nullptr, &cursor, static_cast<long>(parameters.ulValueLen));
    const int nid = curve != nullptr ? OBJ_obj2nid(curve) : NID_undef;
    ASN1_OBJECT_free(curve);
    return nid == NID_X9_62_prime256v1 ? 256
           : nid == NID_secp384r1      ? 384
           : nid == NID_secp521r1      ? 521
                                       : 0;
}

void keyPair(CryptokiInput& input) {
    const bool rsa = (input.byte() & 1) != 0;
    const auto publicTemplate = input.attributes();
    const auto privateTemplate = input.attributes();
    std::optional<pkcs11::KeyPairRequest> request;
    try {
        request = pkcs11::keyPairRequestOf(rsa ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN,
                                           publicTemplate, privateTemplate);
    } catch (const pkcs11::CryptokiError&) {
        return;
    }
    const int size =
        rsa ? static_cast<int>(pkcs11::ulongOf(*pkcs11::findIn(publicTemplate, CKA_MODULUS_BITS)))
            : openSslCurveSize(*pkcs11::findIn(publicTemplate, CKA_EC_PARAMS));
    check(size == keyloft::shapeOf(request->type).sizeInBits);
}

void digest(CryptokiInput& input) {
    const CK_MECHANISM mechanism = input.mechanism();
    auto operation = started<pkcs11::DigestOperation>(mechanism);
    if (!operation) return;
    operation->update(input.bytes(input.byte()));
    check(operation->finish().size() == operation->digestSize());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CryptokiInput input({data, size});
    switch (input.byte() % 7) {
        case 0:
            signAndVerify(input);
            break;
        case 1:
            verifyGiven(input);
            break;
        case 2:
            decrypt(input);
            break;
        case 3:
            derive(input);
            break;
        case 4:
            deriveObject(input);
            break;
        case 5:
            keyPair(input);
            break;
        default:
            digest(input);
            break;
    }
    return 0;
}
