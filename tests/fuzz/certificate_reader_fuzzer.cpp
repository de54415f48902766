// Any bytes read as a certificate give a view or nothing, with every view inside the input. Where
// OpenSSL also reads the bytes as one certificate, the view gives OpenSSL's common name, validity
// and public key; and where, besides, every header is DER, the reader reads it too and gives
// OpenSSL's e-mail addresses. (OpenSSL also takes BER, such as lengths written longer than needed,
// and some headers that are neither, such as a SEQUENCE OF with a primitive tag, which the reader
// refuses.)

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "x509/certificate_reader.hpp"

namespace {

using keyloft::Bytes;
using keyloft::ByteView;
using keyloft::PublicKeyAttributes;
using keyloft::x509::CertificateView;
using Fields = std::array<int, 6>;

void check(bool condition) {
    if (!condition) std::abort();
}

bool inside(ByteView part, ByteView whole) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

// Whether every header is DER as the reader takes it, in constructed elements and in OCTET STRINGs
// whose content starts with elements (extension values). Inside an OCTET STRING a malformed element
// ends the walk, since the content may be anything.
bool headersAreDer(ByteView bytes, int depth, bool inOctetString) {
    constexpr int maxDepth = 32;
    while (!bytes.empty()) {
        if (bytes.size() < 2) return inOctetString;
        const std::uint8_t tag = bytes[0];
        std::size_t length = bytes[1];
        std::size_t header = 2;
        if (length & 0x80U) {
            const std::size_t count = length & 0x7FU;
            if (count == 0 || count > 4 || bytes.size() < 2 + count || bytes[2] == 0)
                return inOctetString;
            length = 0;
            for (std::size_t i = 0; i < count; ++i) length = (length << 8U) | bytes[2 + i];
            if (length < 0x80) return inOctetString;
            header += count;
        }
        if ((tag & 0x1F) == 0x1F || length > bytes.size() - header) return inOctetString;
        const ByteView content = bytes.subspan(header, length);
        const bool universal = (tag & 0xC0) == 0;
        const bool constructed = (tag & 0x20) != 0;
        const bool sequenceOrSet = (tag & 0x1F) == 0x10 || (tag & 0x1F) == 0x11;
        if (universal && constructed != sequenceOrSet) return false;
        if (depth < maxDepth) {
            if (constructed && !headersAreDer(content, depth + 1, false)) return false;
            if (tag == 0x04 && !headersAreDer(content, depth + 1, true)) return false;
        }
        bytes = bytes.subspan(header + length);
    }
    return true;
}

// Whether OpenSSL's own encoding of the alternative names it read starts the extension value: then
// they hold no BER form, such as a dNSName as a constructed string, that the reader refuses.
bool alternativeNamesAreDer(X509* x509, GENERAL_NAMES* names) {
    X509_EXTENSION* extension =
        X509_get_ext(x509, X509_get_ext_by_NID(x509, NID_subject_alt_name, -1));
    const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(extension);
    unsigned char* encoded = nullptr;
    const int length = i2d_GENERAL_NAMES(names, &encoded);
    const bool same =
        length > 0 && length <= value->length && std::equal(encoded, encoded + length, value->data);
    OPENSSL_free(encoded);
    return same;
}

std::string asn1Text(const ASN1_STRING* value) {
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, value);
    if (length < 0) return {};
    std::string text(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return text;
}

std::optional<Fields> openSslTime(const ASN1_TIME* time) {
    std::tm t{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &t) != 1) return std::nullopt;
    return Fields{t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
}

std::optional<Fields> fieldsOf(std::optional<CertificateView::TimePoint> time) {
    using namespace std::chrono;
    if (!time) return std::nullopt;
    const auto day = floor<days>(*time);
    const year_month_day date(day);
    const hh_mm_ss clock(*time - day);
    return Fields{static_cast<int>(date.year()),
                  static_cast<int>(unsigned(date.month())),
                  static_cast<int>(unsigned(date.day())),
                  static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count())};
}

// The public key as the OpenSSL path reports it.
std::optional<PublicKeyAttributes> openSslKey(X509* x509) {
    const EVP_PKEY* key = X509_get0_pubkey(x509);
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(x509);
    if (key == nullptr || bits == nullptr) return std::nullopt;
    const Bytes raw(bits->data, bits->data + bits->length);
    const int size = EVP_PKEY_get_bits(key);
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_EC:
            if (size != 256 && size != 384 && size != 521) return std::nullopt;
            return PublicKeyAttributes{"ec", size, raw};
        case EVP_PKEY_RSA:
            return PublicKeyAttributes{"rsa", size, raw};
        default:
            return std::nullopt;
    }
}

// Keys OpenSSL decodes that the structural reader leaves out by design: key bits with an unused-bit
// count, EC keys on a curve given by explicit parameters or whose point is not uncompressed of the
// curve's size, and RSA keys whose modulus is zero.
bool readerMayOmit(const PublicKeyAttributes& key, X509* x509) {
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(x509);
    if ((bits->flags & ASN1_STRING_FLAG_BITS_LEFT) && (bits->flags & 0x07)) return true;
    if (key.keyType == "rsa") return key.sizeInBits == 0;
    X509_ALGOR* algorithm = nullptr;
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &algorithm, X509_get_X509_PUBKEY(x509));
    int parameterType = V_ASN1_UNDEF;
    X509_ALGOR_get0(nullptr, &parameterType, nullptr, algorithm);
    const std::size_t uncompressed = 1 + 2 * static_cast<std::size_t>((key.sizeInBits + 7) / 8);
    return parameterType != V_ASN1_OBJECT || key.externalRepresentation.size() != uncompressed ||
           key.externalRepresentation[0] != 0x04;
}

void compareWithOpenSsl(const CertificateView& view, X509* x509, bool headersDer) {
    const X509_NAME* subject = X509_get_subject_name(x509);
    std::optional<std::string> commonName;
    if (const int i = X509_NAME_get_index_by_NID(subject, NID_commonName, -1); i >= 0)
        commonName = asn1Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i)));
    check(view.commonName() == commonName);

    std::vector<std::string> emails;
    for (int i = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, -1); i >= 0;
         i = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, i)) {
        emails.push_back(asn1Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i))));
    }
    auto* names =
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(x509, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
        if (name->type == GEN_EMAIL) emails.push_back(asn1Text(name->d.rfc822Name));
    }
    const bool comparable = headersDer && (names == nullptr || alternativeNamesAreDer(x509, names));
    GENERAL_NAMES_free(names);
    if (comparable) check(view.emailAddresses() == emails);

    check(fieldsOf(view.notBefore()) == openSslTime(X509_get0_notBefore(x509)));
    check(fieldsOf(view.notAfter()) == openSslTime(X509_get0_notAfter(x509)));

    const auto expected = openSslKey(x509);
    const auto actual = view.publicKey();
    if (expected && actual) {
        check(actual->keyType == expected->keyType && actual->sizeInBits == expected->sizeInBits &&
              actual->externalRepresentation == expected->externalRepresentation);
    } else if (expected) {
        check(readerMayOmit(*expected, x509));
    }
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(x509);
    check(bits != nullptr &&
          view.subjectPublicKey().size() == static_cast<std::size_t>(bits->length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView input(data, size);
    const auto view = keyloft::x509::readCertificate(input);
    if (view) {
        for (const ByteView part : {view->serialNumber(), view->issuer(), view->subject(),
                                    view->subjectPublicKeyInfo(), view->subjectPublicKey()}) {
            check(inside(part, input));
        }
        check(inside(view->subjectPublicKey(), view->subjectPublicKeyInfo()));
        const auto from = view->notBefore();
        const auto to = view->notAfter();
        const auto now = std::chrono::system_clock::now();
        check(view->isValidAt(now) ==
              (from && to && *from <= std::chrono::floor<std::chrono::seconds>(now) &&
               std::chrono::ceil<std::chrono::seconds>(now) <= *to));
    }

    const unsigned char* cursor = data;
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(size)), X509_free);
    if (!x509 || cursor != data + size) return 0;
    const bool headersDer = headersAreDer(input, 0, false);
    check(view || !headersDer);
    if (view) compareWithOpenSsl(*view, x509.get(), headersDer);
    return 0;
}
