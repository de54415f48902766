#include "x509/certification_request.hpp"

#include "der/object_identifiers.hpp"

namespace keyloft::x509 {
namespace {

using der::Record;

// keyUsage with all nine bits, digitalSignature to decipherOnly.
Record everyKeyUsage() {
    const Bytes bits{0x07, 0xFF, 0x80};
    return der::sequenceRecord(
        {der::oidRecord(der::oid::keyUsage), der::booleanTrueRecord(),
         der::wrapInOctetString(der::primitiveRecord(der::tag::bitString, bits))});
}

}  // namespace

Record buildCertificationRequest(const Name& subject, const PublicKeyAttributes& publicKey,
                                 const Signer& sign) {
    const auto extensionRequest =
        der::sequenceRecord({der::oidRecord(der::oid::extensionRequest),
                             der::setRecord({der::sequenceRecord({everyKeyUsage()})})});
    const auto info = der::sequenceRecord({
        der::integerRecord(0),
        requestName(subject),
        subjectPublicKeyInfo(publicKey),
        der::constructedRecord(der::tag::contextConstructed0, {extensionRequest}),
    });
    const ByteView oid = publicKey.keyType == keyTypeRSA
                             ? ByteView(der::oid::sha384WithRSAEncryption)
                             : ByteView(der::oid::ecdsaWithSHA384);
    const Bytes signature = sign(der::encode(info));
    return der::sequenceRecord(
        {info, *signatureAlgorithmIdentifier(oid), der::bitStringRecord(signature)});
}

}  // namespace keyloft::x509
