#include "pkcs12_export/pfx.hpp"

#include "base/error.hpp"
#include "base/public_key_attributes.hpp"
#include "der/object_identifiers.hpp"
#include "der/public_key_algorithm.hpp"
#include "pkcs12_export/p12_pbe_gen.hpp"
#include "pkcs12_export/pbe_encrypt.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/crypto/random.hpp"

namespace keyloft::pkcs12_export {
namespace {

using der::Record;

constexpr std::size_t saltSize = 8;

Bytes randomSalt() {
    Bytes salt(saltSize);
    if (!platform::crypto::randomBytes(salt))
        throw KeyloftError::generic("failed to generate salt");
    return salt;
}

Record explicitContent(Record content) {
    return der::constructedRecord(der::tag::contextConstructed0, {std::move(content)});
}

Record localKeyIdAttributes(ByteView pubKeyHash) {
    return der::setRecord(
        {der::sequenceRecord({der::oidRecord(der::oid::localKeyId),
                              der::setRecord({der::octetStringRecord(pubKeyHash)})})});
}

Record pbeParameters(ByteView oid, ByteView salt, std::uint32_t iterations) {
    return der::sequenceRecord(
        {der::oidRecord(oid),
         der::sequenceRecord({der::octetStringRecord(salt), der::integerRecord(iterations)})});
}

Bytes certificateSafeContents(ByteView certificate, ByteView pubKeyHash) {
    const auto bag = der::sequenceRecord({
        der::oidRecord(der::oid::certBag),
        explicitContent(
            der::sequenceRecord({der::oidRecord(der::oid::x509Certificate),
                                 explicitContent(der::octetStringRecord(certificate))})),
        localKeyIdAttributes(pubKeyHash),
    });
    return der::encode(der::sequenceRecord({bag}));
}

Record encryptedDataContentInfo(ByteView cipher, ByteView salt, std::uint32_t iterations) {
    const auto encryptedContentInfo = der::sequenceRecord({
        der::oidRecord(der::oid::pkcs7Data),
        pbeParameters(der::oid::pbeWithSHAAnd40BitRC2CBC, salt, iterations),
        der::primitiveRecord(der::tag::contextPrimitive0, cipher),
    });
    return der::sequenceRecord(
        {der::oidRecord(der::oid::pkcs7EncryptedData),
         explicitContent(der::sequenceRecord({der::integerRecord(0), encryptedContentInfo}))});
}

Record shroudedKeyContentInfo(ByteView cipher, ByteView salt, ByteView pubKeyHash,
                              std::uint32_t iterations) {
    const auto bag = der::sequenceRecord({
        der::oidRecord(der::oid::pkcs8ShroudedKeyBag),
        explicitContent(der::sequenceRecord(
            {pbeParameters(der::oid::pbeWithSHAAnd3KeyTripleDESCBC, salt, iterations),
             der::octetStringRecord(cipher)})),
        localKeyIdAttributes(pubKeyHash),
    });
    return der::sequenceRecord(
        {der::oidRecord(der::oid::pkcs7Data),
         explicitContent(der::wrapInOctetString(der::sequenceRecord({bag})))});
}

// The privateKey field of PrivateKeyInfo. Records are immutable and never wiped, so the record
// holds zeros where the secret goes and the secret is copied into the wiped encoding afterwards;
// publicTail is the size of what follows the secret in the encoding.
struct KeyPlacement {
    Record algorithm;
    Record privateKey;
    ByteView secret;
    std::size_t publicTail = 0;
};

KeyPlacement ecPlacement(const UnwrappedKey& key) {
    const auto algorithm = der::publicKeyAlgorithm(key.keyType, key.sizeInBits);
    const std::size_t field = (static_cast<std::size_t>(key.sizeInBits) + 7) / 8;
    const auto& data = key.externalRepresentation;
    if (data.size() != 1 + 3 * field || data[0] != 0x04)
        throw KeyloftError::generic("failed to copy public key");
    const ByteView point(data.data(), 1 + 2 * field);
    const ByteView scalar(data.data() + point.size(), field);
    const auto publicKey =
        der::constructedRecord(der::tag::contextConstructed1, {der::bitStringRecord(point)});
    const auto ecPrivateKey = der::sequenceRecord({
        der::integerRecord(1),
        der::octetStringRecord(Bytes(field)),
        publicKey,
    });
    return {algorithm, der::wrapInOctetString(ecPrivateKey), scalar, der::encode(publicKey).size()};
}

KeyPlacement rsaPlacement(const UnwrappedKey& key) {
    const auto& data = key.externalRepresentation;
    return {der::publicKeyAlgorithm(key.keyType, key.sizeInBits),
            der::octetStringRecord(Bytes(data.size())), data, 0};
}

struct Mac {
    Bytes digest;
    Bytes salt;
};

// HMAC-SHA1 over the AuthenticatedSafe DER, keyed from the password and a fresh salt.
Mac pkcs12Mac(std::string_view password, ByteView authSafe, std::uint32_t iterations) {
    Bytes salt = randomSalt();
    Bytes digest = platform::crypto::hmacSha1(pbeMacKey(password, salt, iterations), authSafe);
    return {std::move(digest), std::move(salt)};
}

KeyPlacement placementOf(const UnwrappedKey& key) {
    if (key.keyType == keyTypeEC) return ecPlacement(key);
    if (key.keyType == keyTypeRSA) return rsaPlacement(key);
    throw KeyloftError::generic("unsupported public key type: " + key.keyType);
}

}  // namespace

platform::crypto::SecretBytes privateKeyInfo(const UnwrappedKey& key) {
    const KeyPlacement placement = placementOf(key);
    const Bytes encoded = der::encode(
        der::sequenceRecord({der::integerRecord(0), placement.algorithm, placement.privateKey}));
    platform::crypto::SecretBytes out(encoded.begin(), encoded.end());
    const auto secretEnd = out.end() - static_cast<std::ptrdiff_t>(placement.publicTail);
    std::copy(placement.secret.begin(), placement.secret.end(),
              secretEnd - static_cast<std::ptrdiff_t>(placement.secret.size()));
    return out;
}

Bytes buildPKCS12(std::string_view password, ByteView certificate, ByteView pubKeyHash,
                  std::uint32_t iterations, const Unwrap& unwrap) {
    const Bytes certificateSalt = randomSalt();
    const Bytes certificateCipher =
        pbeEncrypt(certificateSafeContents(certificate, pubKeyHash), password, certificateSalt,
                   iterations, 40, platform::crypto::BlockCipher::rc2, 8);
    const auto certificateInfo =
        encryptedDataContentInfo(certificateCipher, certificateSalt, iterations);

    const Bytes keySalt = randomSalt();
    const Bytes keyCipher = pbeEncrypt(privateKeyInfo(unwrap()), password, keySalt, iterations, 192,
                                       platform::crypto::BlockCipher::tripleDes, 8);
    const auto keyInfo = shroudedKeyContentInfo(keyCipher, keySalt, pubKeyHash, iterations);

    const Bytes authSafe = der::encode(der::sequenceRecord({certificateInfo, keyInfo}));
    const Mac mac = pkcs12Mac(password, authSafe, iterations);
    const auto macData = der::sequenceRecord({
        der::sequenceRecord(
            {der::sequenceRecord({der::oidRecord(der::oid::idSha1), der::nullRecord()}),
             der::octetStringRecord(mac.digest)}),
        der::octetStringRecord(mac.salt),
        der::integerRecord(iterations),
    });
    return der::encode(der::sequenceRecord({
        der::integerRecord(3),
        der::sequenceRecord({der::oidRecord(der::oid::pkcs7Data),
                             explicitContent(der::octetStringRecord(authSafe))}),
        macData,
    }));
}

}  // namespace keyloft::pkcs12_export
