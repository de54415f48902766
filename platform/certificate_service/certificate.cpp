#include "platform/certificate_service/certificate.hpp"

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "platform/crypto/digest.hpp"
#include "platform/crypto/openssl_handles.hpp"

namespace keyloft::platform::certificate_service {
namespace {

std::string asn1Text(const ASN1_STRING* value) {
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, value);
    if (length < 0) return {};
    std::string text(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return text;
}

std::optional<Certificate::TimePoint> timeOf(const ASN1_TIME* time) {
    struct tm broken {};
    if (time == nullptr || ASN1_TIME_to_tm(time, &broken) != 1) return std::nullopt;
    const std::chrono::year_month_day date{
        std::chrono::year(broken.tm_year + 1900),
        std::chrono::month(static_cast<unsigned>(broken.tm_mon + 1)),
        std::chrono::day(static_cast<unsigned>(broken.tm_mday))};
    return std::chrono::sys_days(date) + std::chrono::hours(broken.tm_hour) +
           std::chrono::minutes(broken.tm_min) + std::chrono::seconds(broken.tm_sec);
}

std::optional<PublicKeyAttributes> ecPublicKey(const EVP_PKEY* key, ByteView point) {
    const int bits = EVP_PKEY_get_bits(key);
    if (bits != 256 && bits != 384 && bits != 521) return std::nullopt;
    return PublicKeyAttributes{std::string(keyTypeEC), bits, Bytes(point.begin(), point.end())};
}

}  // namespace

struct Certificate::Handle {
    openssl::X509Certificate x509;
};

std::optional<Certificate> Certificate::parse(ByteView der) {
    const unsigned char* cursor = der.data();
    openssl::X509Certificate x509(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
    if (!x509 || cursor != der.data() + der.size()) return std::nullopt;
    auto handle = std::make_shared<Handle>();
    handle->x509 = std::move(x509);
    return Certificate(std::move(handle));
}

std::optional<Bytes> Certificate::publicKeyHash() const {
    const ASN1_BIT_STRING* key = X509_get0_pubkey_bitstr(handle_->x509.get());
    if (key == nullptr) return std::nullopt;
    return crypto::sha1(
        ByteView(ASN1_STRING_get0_data(key), static_cast<std::size_t>(ASN1_STRING_length(key))));
}

std::optional<PublicKeyAttributes> Certificate::publicKey() const {
    const EVP_PKEY* key = X509_get0_pubkey(handle_->x509.get());
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(handle_->x509.get());
    if (key == nullptr || bits == nullptr) return std::nullopt;
    const ByteView raw(ASN1_STRING_get0_data(bits),
                       static_cast<std::size_t>(ASN1_STRING_length(bits)));
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_EC:
            return ecPublicKey(key, raw);
        case EVP_PKEY_RSA:
            return PublicKeyAttributes{std::string(keyTypeRSA), EVP_PKEY_get_bits(key),
                                       Bytes(raw.begin(), raw.end())};
        default:
            return std::nullopt;
    }
}

std::optional<std::string> Certificate::commonName() const {
    const X509_NAME* subject = X509_get_subject_name(handle_->x509.get());
    const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (index < 0) return std::nullopt;
    return asn1Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
}

std::vector<std::string> Certificate::emailAddresses() const {
    std::vector<std::string> addresses;
    const X509_NAME* subject = X509_get_subject_name(handle_->x509.get());
    for (int index = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, -1); index >= 0;
         index = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, index)) {
        addresses.push_back(
            asn1Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index))));
    }
    const openssl::GeneralNames names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(handle_->x509.get(), NID_subject_alt_name, nullptr, nullptr)));
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_EMAIL) addresses.push_back(asn1Text(name->d.rfc822Name));
    }
    return addresses;
}

std::optional<Certificate::TimePoint> Certificate::notBefore() const {
    return timeOf(X509_get0_notBefore(handle_->x509.get()));
}

std::optional<Certificate::TimePoint> Certificate::notAfter() const {
    return timeOf(X509_get0_notAfter(handle_->x509.get()));
}

bool Certificate::isValidAt(TimePoint instant) const {
    const auto from = notBefore();
    const auto to = notAfter();
    return from && to && *from <= instant && instant <= *to;
}

}  // namespace keyloft::platform::certificate_service
