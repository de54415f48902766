#include "x509/certificate.hpp"

#include <algorithm>
#include <vector>

#include "base/error.hpp"
#include "der/object_identifiers.hpp"
#include "der/public_key_algorithm.hpp"

namespace keyloft::x509 {
namespace {

using der::BerTlvRecord;

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (std::size_t start = 0;;) {
        const auto end = text.find(separator, start);
        parts.push_back(
            text.substr(start, end == std::string_view::npos ? text.npos : end - start));
        if (end == std::string_view::npos) return parts;
        start = end + 1;
    }
}

// A serial whose first UUID byte is 0x00 before a byte below 0x80 would not be a minimal INTEGER.
std::array<std::uint8_t, 16> serialFrom(const UuidSource& uuids) {
    for (;;) {
        const auto uuid = uuids();
        if (!(uuid[0] == 0x00 && uuid[1] < 0x80)) return uuid;
    }
}

BerTlvRecord extension(ByteView oid, bool critical, const BerTlvRecord& value) {
    BerTlvRecord::Children children{der::oidRecord(oid)};
    if (critical) children.push_back(der::booleanTrueRecord());
    children.push_back(der::wrapInOctetString(value));
    return der::sequenceRecord(std::move(children));
}

BerTlvRecord extensions(const X509Certificate& model) {
    BerTlvRecord::Children list{
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

const BerTlvRecord& Name::der() const {
    if (!der_) {
        BerTlvRecord::Children rdns;
        const std::pair<const std::optional<std::string>*, ByteView> attributes[] = {
            {&country, der::oid::countryName},
            {&stateOrProvince, der::oid::stateOrProvinceName},
            {&locality, der::oid::localityName},
            {&organization, der::oid::organizationName},
            {&organizationalUnit, der::oid::organizationalUnitName},
            {&commonName, der::oid::commonName},
            {&email, der::oid::emailAddress},
        };
        for (const auto& [value, oid] : attributes) {
            if (!*value) continue;
            rdns.push_back(der::setRecord({der::sequenceRecord(
                {der::oidRecord(oid), der::asciiStringRecord(der::tag::ia5String, **value)})}));
        }
        der_ = der::sequenceRecord(std::move(rdns));
    }
    return *der_;
}

BerTlvRecord subjectPublicKeyInfo(const PublicKeyAttributes& publicKey) {
    return der::sequenceRecord({der::publicKeyAlgorithm(publicKey.keyType, publicKey.sizeInBits),
                                der::bitStringRecord(publicKey.externalRepresentation)});
}

X509Certificate X509Certificate::create(const PublicKeyAttributes& publicKey, Bytes pubKeyHash,
                                        std::optional<std::string_view> specification,
                                        bool keyManagement, const UuidSource& uuids) {
    const auto validity = startValidity();
    X509Certificate model{.pubKeyBERTLV = subjectPublicKeyInfo(publicKey),
                          .pubKeyHash = std::move(pubKeyHash),
                          .validFrom = validity.validFrom,
                          .validTo = validity.validTo,
                          .serial = serialFrom(uuids),
                          .keyManagement = keyManagement};
    model.applySpecification(specification);
    return model;
}

void X509Certificate::applySpecification(std::optional<std::string_view> specification) {
    if (!specification || specification->empty()) return;
    const auto parts = split(*specification, '|');
    if (!parts[0].empty()) {
        const auto components = split(parts[0], ';');
        if (components.size() <= 7) {
            std::optional<std::string>* fields[] = {
                &subject.commonName,   &subject.email,    &subject.organizationalUnit,
                &subject.organization, &subject.locality, &subject.stateOrProvince,
                &subject.country};
            for (std::size_t i = 0; i < components.size(); ++i) {
                // The common name is set even when empty; other empty components clear their field.
                if (i == 0 || !components[i].empty()) {
                    *fields[i] = std::string(components[i]);
                } else {
                    fields[i]->reset();
                }
            }
        }
    }
    if (parts.size() > 1) {
        Validity validity{validFrom, validTo};
        applyValidityDays(validity, parts[1]);
        validTo = validity.validTo;
    }
}

std::optional<BerTlvRecord> signatureAlgorithmIdentifier(ByteView signatureOid) {
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

BerTlvRecord buildCertificate(const X509Certificate& model, ByteView signatureOid,
                              const Signer& sign) {
    const auto algorithm = signatureAlgorithmIdentifier(signatureOid);
    if (!algorithm) throw KeyloftError::generic("Unsupported signature OID");
    const auto tbs = der::sequenceRecord({
        der::constructedRecord(der::tag::contextConstructed0, {der::integerRecord(2)}),
        der::unsignedIntegerRecord(model.serial),
        *algorithm,
        model.subject.der(),
        der::sequenceRecord({utcTimeRecord(model.validFrom), utcTimeRecord(model.validTo)}),
        model.subject.der(),
        model.pubKeyBERTLV,
        extensions(model),
    });
    const Bytes signature = sign(der::encode(tbs));
    return der::sequenceRecord({tbs, *algorithm, der::bitStringRecord(signature)});
}

}  // namespace keyloft::x509
