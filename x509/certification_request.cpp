#include "x509/certification_request.hpp"

#include <algorithm>

#include "der/object_identifiers.hpp"

namespace keyloft::x509 {
namespace {

using der::BerTlvRecord;

// The PrintableString character set of X.680.
bool isPrintableString(std::string_view text) {
    constexpr std::string_view punctuation = " '()+,-./:=?";
    return std::ranges::all_of(text, [&](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               punctuation.find(c) != punctuation.npos;
    });
}

BerTlvRecord attributeValue(SubjectAttribute attribute, const std::string& value) {
    switch (attribute) {
        case SubjectAttribute::email:
            return der::asciiStringRecord(der::tag::ia5String, value);
        case SubjectAttribute::country:
            // Authorities expect a PrintableString country; other text keeps every character.
            if (isPrintableString(value))
                return der::asciiStringRecord(der::tag::printableString, value);
            return der::primitiveRecord(der::tag::utf8String, bytesOf(value));
        default:
            return der::primitiveRecord(der::tag::utf8String, bytesOf(value));
    }
}

ByteView attributeType(SubjectAttribute attribute) {
    switch (attribute) {
        case SubjectAttribute::commonName:
            return der::oid::commonName;
        case SubjectAttribute::email:
            return der::oid::emailAddress;
        case SubjectAttribute::organizationalUnit:
            return der::oid::organizationalUnitName;
        case SubjectAttribute::organization:
            return der::oid::organizationName;
        case SubjectAttribute::locality:
            return der::oid::localityName;
        case SubjectAttribute::stateOrProvince:
            return der::oid::stateOrProvinceName;
        case SubjectAttribute::country:
            return der::oid::countryName;
    }
    return {};
}

// keyUsage with all nine bits, digitalSignature to decipherOnly.
BerTlvRecord everyKeyUsage() {
    const Bytes bits{0x07, 0xFF, 0x80};
    return der::sequenceRecord(
        {der::oidRecord(der::oid::keyUsage), der::booleanTrueRecord(),
         der::wrapInOctetString(der::primitiveRecord(der::tag::bitString, bits))});
}

}  // namespace

BerTlvRecord buildCertificationRequest(const RequestSubject& subject,
                                       const PublicKeyAttributes& publicKey, const Signer& sign) {
    BerTlvRecord::Children rdns;
    for (const auto& [attribute, value] : subject) {
        rdns.push_back(der::setRecord({der::sequenceRecord(
            {der::oidRecord(attributeType(attribute)), attributeValue(attribute, value)})}));
    }
    const auto extensionRequest =
        der::sequenceRecord({der::oidRecord(der::oid::extensionRequest),
                             der::setRecord({der::sequenceRecord({everyKeyUsage()})})});
    const auto info = der::sequenceRecord({
        der::integerRecord(0),
        der::sequenceRecord(std::move(rdns)),
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
