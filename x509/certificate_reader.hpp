#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"

namespace keyloft::x509 {

// An X.509 certificate read in place from its DER, giving what the listing, the PKCS#11 module
// and the key service look up, with the answers OpenSSL gives for the same certificate. Its views
// point into the bytes given to readCertificate, which must outlive it.
class CertificateView {
  public:
    // Whole seconds: a nanosecond system_clock time_point ends in 2262, and certificates that
    // never expire carry the year 9999.
    using TimePoint = std::chrono::sys_seconds;

    // The DER of each field, tag and length included.
    ByteView serialNumber() const { return serialNumber_; }
    ByteView issuer() const { return issuer_; }
    ByteView subject() const { return subject_; }
    ByteView subjectPublicKeyInfo() const { return subjectPublicKeyInfo_; }
    // The subjectPublicKey BIT STRING after its unused-bit count: what key hashes are taken of.
    ByteView subjectPublicKey() const { return subjectPublicKey_; }

    // Read from the SubjectPublicKeyInfo without decoding the key: EC on P-256, P-384 or P-521 with
    // an uncompressed point of the curve's size, or an RSA key sized by its modulus; the key bits
    // must have no unused-bit count. Nothing for other keys. The point is not checked to lie on the
    // curve, nor the RSA key beyond its modulus.
    std::optional<PublicKeyAttributes> publicKey() const;

    // The first commonName of the subject as UTF-8; an empty text when its string type has no
    // text form. Nothing when the subject has no commonName.
    std::optional<std::string> commonName() const;
    // The subject's emailAddress attributes in order, then the rfc822Name entries of the subject
    // alternative names (none when that extension occurs twice or cannot be read).
    std::vector<std::string> emailAddresses() const;

    // Nothing when the time is not one OpenSSL reads.
    std::optional<TimePoint> notBefore() const;
    std::optional<TimePoint> notAfter() const;
    // Both times read and notBefore <= instant <= notAfter.
    bool isValidAt(std::chrono::system_clock::time_point instant) const;

  private:
    friend std::optional<CertificateView> readCertificate(ByteView encoded);
    CertificateView() = default;

    ByteView serialNumber_;
    ByteView issuer_;
    ByteView subject_;
    ByteView subjectPublicKeyInfo_;
    ByteView subjectPublicKey_;
    std::uint8_t notBeforeTag_ = 0;
    ByteView notBefore_;
    std::uint8_t notAfterTag_ = 0;
    ByteView notAfter_;
    ByteView alternativeNames_;  // the extension's OCTET STRING content; empty when none
};

// Nothing when the bytes are not exactly one DER certificate.
std::optional<CertificateView> readCertificate(ByteView encoded);

}  // namespace keyloft::x509
