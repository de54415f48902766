#include "x509/certificate.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "der/object_identifiers.hpp"
#include "der/public_key_algorithm.hpp"

namespace keyloft::x509 {
namespace {

using der::Record;

// A serial whose first UUID byte is 0x00 before a byte below 0x80 would not be a minimal INTEGER.
std::array<std::uint8_t, 16> serialFrom(const UuidSource& uuids) {
    for (;;) {
        const auto uuid = uuids();
        if (!(uuid[0] == 0x00 && uuid[1] < 0x80)) return uuid;
    }
}

Record extension(ByteView oid, bool critical, const Record& value) {
    Record::Children children{der::oidRecord(oid)};
    if (critical) children.push_back(der::booleanTrueRecord());
    children.push_back(der::wrapInOctetString(value));
    return der::sequenceRecord(std::move(children));
}

Record extensions(const X509Certificate& model) {
    Record::Children list{
        extension(der::oid::basicConstraints, true, der::sequenceRecord({})),
        extension(der::oid::subjectKeyIdentifier, false, der::octetStringRecord(model.pubKeyHash)),
        extension(der::oid::keyUsage, true,
                  der::namedBitsRecord(model.keyManagement ? 0x14 : 0x03)),
        extension(der::oid::extKeyUsage, false,
                  der::sequenceRecord({der::oidRecord(der::oid::idKpEmailProtection),
                                       der::oidRecord(der::oid::idKpClientAuth),
                                       der::oidRecord(der::oid::idKpCodeSigning)})),
        extension(der::oid::authorityKeyIdentifier, false,
                  der::sequenceRecord(
                      {der::primitiveRecord(der::tag::contextPrimitive0, model.pubKeyHash)})),
    };
    if (model.subject.email && !model.subject.email->empty()) {
        list.push_back(extension(der::oid::subjectAltName, false,
                                 der::sequenceRecord({der::asciiStringRecord(
                                     der::tag::contextPrimitive1, *model.subject.email)})));
    }
    return der::constructedRecord(der::tag::contextConstructed3,
                                  {der::sequenceRecord(std::move(list))});
}

}  // namespace

Record subjectPublicKeyInfo(const PublicKeyAttributes& publicKey) {
    return der::sequenceRecord({der::publicKeyAlgorithm(publicKey.keyType, publicKey.sizeInBits),
                                der::bitStringRecord(publicKey.externalRepresentation)});
}

X509Certificate X509Certificate::create(const PublicKeyAttributes& publicKey, Bytes pubKeyHash,
                                        Name subject, bool keyManagement, const UuidSource& uuids) {
    const auto validity = startValidity();
    return {.pubKeyBERTLV = subjectPublicKeyInfo(publicKey),
            .pubKeyHash = std::move(pubKeyHash),
            .subject = std::move(subject),
            .validFrom = validity.validFrom,
            .validTo = validity.validTo,
            .serial = serialFrom(uuids),
            .keyManagement = keyManagement};
}

std::optional<Record> signatureAlgorithmIdentifier(ByteView signatureOid) {
    const ByteView ecdsa[] = {der::oid::ecdsaWithSHA224, der::oid::ecdsaWithSHA256,
                              der::oid::ecdsaWithSHA384, der::oid::ecdsaWithSHA512};
    const ByteView rsa[] = {der::oid::sha256WithRSAEncryption, der::oid::sha384WithRSAEncryption,
                            der::oid::sha512WithRSAEncryption};
    const auto is = [&](ByteView candidate) { return std::ranges::equal(candidate, signatureOid); };
    if (std::ranges::any_of(ecdsa, is)) return der::sequenceRecord({der::oidRecord(signatureOid)});
    if (std::ranges::any_of(rsa, is))
        return der::sequenceRecord({der::oidRecord(signatureOid), der::nullRecord()});
    return std::nullopt;
}

Record buildCertificate(const X509Certificate& model, ByteView signatureOid, const Signer& sign) {
    const auto algorithm = signatureAlgorithmIdentifier(signatureOid);
    if (!algorithm) throw KeyloftError::generic("Unsupported signature OID");
    const auto name = certificateName(model.subject);
    const auto tbs = der::sequenceRecord({
        der::constructedRecord(der::tag::contextConstructed0, {der::integerRecord(2)}),
        der::unsignedIntegerRecord(model.serial),
        *algorithm,
        name,
        der::sequenceRecord({utcTimeRecord(model.validFrom), utcTimeRecord(model.validTo)}),
        name,
        model.pubKeyBERTLV,
        extensions(model),
    });
    const Bytes signature = sign(der::encode(tbs));
    return der::sequenceRecord({tbs, *algorithm, der::bitStringRecord(signature)});
}

}  // namespace keyloft::x509
