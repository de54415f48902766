#include "x509/certificate_fields.hpp"

#include "der/ber_tlv_record.hpp"

namespace keyloft::x509 {
namespace {

// The records inside a SEQUENCE record, or nothing.
std::optional<der::BerTlvRecord::Children> sequenceContents(
    const std::optional<der::BerTlvRecord>& record) {
    if (!record || record->tag() != der::tag::sequence) return std::nullopt;
    return der::parseContents(record->bytes());
}

}  // namespace

std::optional<CertificateFields> certificateFields(ByteView certificate) {
    const auto outer = sequenceContents(der::parseRecord(certificate));
    if (!outer || outer->size() != 3) return std::nullopt;
    const auto fields = sequenceContents((*outer)[0]);
    if (!fields) return std::nullopt;
    // The version is an optional leading [0]; serial, signature, issuer, validity, subject and
    // subjectPublicKeyInfo follow in that order.
    const std::size_t first =
        !fields->empty() && (*fields)[0].tag() == der::tag::contextConstructed0 ? 1 : 0;
    if (fields->size() < first + 6) return std::nullopt;
    const auto& serial = (*fields)[first];
    const auto& issuer = (*fields)[first + 2];
    const auto& subject = (*fields)[first + 4];
    const auto& publicKeyInfo = (*fields)[first + 5];
    if (serial.tag() != der::tag::integer || issuer.tag() != der::tag::sequence ||
        subject.tag() != der::tag::sequence || publicKeyInfo.tag() != der::tag::sequence) {
        return std::nullopt;
    }
    return CertificateFields{der::encode(serial), der::encode(issuer), der::encode(subject),
                             der::encode(publicKeyInfo)};
}

}  // namespace keyloft::x509
