#include "x509/certificate_reader.hpp"

#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>

#include "support/test_certificates.hpp"

namespace keyloft::x509 {
namespace {

// ---- Certificates built field by field, signatures left unchecked as every reader leaves them.

Bytes tlv(std::uint8_t tag, ByteView content) {
    Bytes out{tag};
    if (content.size() < 0x80) {
        out.push_back(static_cast<std::uint8_t>(content.size()));
    } else if (content.size() < 0x100) {
        out.insert(out.end(), {0x81, static_cast<std::uint8_t>(content.size())});
    } else {
        out.insert(out.end(), {0x82, static_cast<std::uint8_t>(content.size() >> 8U),
                               static_cast<std::uint8_t>(content.size())});
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}
Bytes tlv(std::uint8_t tag, std::initializer_list<ByteView> children) {
    return tlv(tag, concat(children));
}
Bytes text(std::uint8_t tag, std::string_view value) {
    return tlv(tag, bytesOf(value));
}

const Bytes cnOid = tlv(0x06, Bytes{0x55, 0x04, 0x03});
const Bytes emailOid = tlv(0x06, Bytes{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01});
const Bytes ecdsaWithSha256 =
    tlv(0x30, {tlv(0x06, Bytes{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02})});

Bytes attribute(const Bytes& oid, const Bytes& value) {
    return tlv(0x30, {oid, value});
}
// One attribute per RDN, in order.
Bytes name(std::initializer_list<Bytes> attributes) {
    Bytes rdns;
    for (const auto& one : attributes) rdns = concat({rdns, tlv(0x31, one)});
    return tlv(0x30, rdns);
}
Bytes alternativeNames(const Bytes& content) {
    return tlv(0x30, {tlv(0x06, Bytes{0x55, 0x1D, 0x11}), tlv(0x04, content)});
}

Bytes publicKeyInfoOf(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key, &der);
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

struct Parts {
    Bytes version = tlv(0xA0, {tlv(0x02, Bytes{0x02})});
    Bytes serial = tlv(0x02, Bytes{0x01});
    Bytes issuer = name({attribute(cnOid, text(0x0C, "Issuer"))});
    Bytes notBefore = text(0x17, "240101000000Z");
    Bytes notAfter = text(0x17, "340101000000Z");
    Bytes subject = name({attribute(cnOid, text(0x0C, "Subject"))});
    Bytes publicKeyInfo = publicKeyInfoOf(testing::makeEcKey().get());
    Bytes extensions;  // the Extension records, wrapped here when there are any
    Bytes signature = ecdsaWithSha256;
};

Bytes build(const Parts& p) {
    const Bytes extensions = p.extensions.empty() ? Bytes{} : tlv(0xA3, {tlv(0x30, p.extensions)});
    const Bytes tbs =
        tlv(0x30, {p.version, p.serial, p.signature, p.issuer, tlv(0x30, {p.notBefore, p.notAfter}),
                   p.subject, p.publicKeyInfo, extensions});
    return tlv(0x30, {tbs, ecdsaWithSha256, tlv(0x03, Bytes{0x00, 0x30, 0x00})});
}

// ---- The answers of the OpenSSL path the reader replaces, and the reader's own.

using Fields = std::array<int, 6>;  // year, month, day, hour, minute, second

struct Answers {
    bool read = false;
    std::optional<std::string> commonName;
    std::vector<std::string> emails;
    std::optional<Fields> notBefore, notAfter;
    std::optional<PublicKeyAttributes> key;
};

std::string asn1Text(const ASN1_STRING* value) {
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, value);
    if (length < 0) return {};
    std::string out(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return out;
}

std::optional<Fields> openSslTime(const ASN1_TIME* time) {
    std::tm t{};
    if (ASN1_TIME_to_tm(time, &t) != 1) return std::nullopt;
    return Fields{t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
}

Answers openSslAnswers(const Bytes& der) {
    const unsigned char* cursor = der.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(der.size())), X509_free);
    if (!x509 || cursor != der.data() + der.size()) return {};
    Answers answers;
    answers.read = true;
    const X509_NAME* subject = X509_get_subject_name(x509.get());
    if (const int i = X509_NAME_get_index_by_NID(subject, NID_commonName, -1); i >= 0)
        answers.commonName = asn1Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i)));
    for (int i = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, -1); i >= 0;
         i = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, i)) {
        answers.emails.push_back(
            asn1Text(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i))));
    }
    auto* names = static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(x509.get(), NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* one = sk_GENERAL_NAME_value(names, i);
        if (one->type == GEN_EMAIL) answers.emails.push_back(asn1Text(one->d.rfc822Name));
    }
    GENERAL_NAMES_free(names);
    answers.notBefore = openSslTime(X509_get0_notBefore(x509.get()));
    answers.notAfter = openSslTime(X509_get0_notAfter(x509.get()));
    const EVP_PKEY* key = X509_get0_pubkey(x509.get());
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(x509.get());
    const Bytes raw(bits->data, bits->data + bits->length);
    const int size = key != nullptr ? EVP_PKEY_get_bits(key) : 0;
    if (key != nullptr && EVP_PKEY_get_base_id(key) == EVP_PKEY_EC &&
        (size == 256 || size == 384 || size == 521)) {
        answers.key = PublicKeyAttributes{"ec", size, raw};
    } else if (key != nullptr && EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) {
        answers.key = PublicKeyAttributes{"rsa", size, raw};
    }
    return answers;
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

Answers readerAnswers(const Bytes& der) {
    const auto view = readCertificate(der);
    if (!view) return {};
    return {true,
            view->commonName(),
            view->emailAddresses(),
            fieldsOf(view->notBefore()),
            fieldsOf(view->notAfter()),
            view->publicKey()};
}

void expectSameAnswers(const Bytes& der) {
    const auto expected = openSslAnswers(der);
    const auto actual = readerAnswers(der);
    ASSERT_EQ(actual.read, expected.read);
    EXPECT_EQ(actual.commonName, expected.commonName);
    EXPECT_EQ(actual.emails, expected.emails);
    EXPECT_EQ(actual.notBefore, expected.notBefore);
    EXPECT_EQ(actual.notAfter, expected.notAfter);
    ASSERT_EQ(actual.key.has_value(), expected.key.has_value());
    if (expected.key) {
        EXPECT_EQ(actual.key->keyType, expected.key->keyType);
        EXPECT_EQ(actual.key->sizeInBits, expected.key->sizeInBits);
        EXPECT_EQ(actual.key->externalRepresentation, expected.key->externalRepresentation);
    }
}

// ---- Certificates made by OpenSSL

template <class T, class Encoder>
Bytes derOf(T* value, Encoder encode) {
    unsigned char* out = nullptr;
    const int size = encode(value, &out);
    Bytes bytes(out, out + size);
    OPENSSL_free(out);
    return bytes;
}

class MadeByOpenSsl : public ::testing::TestWithParam<std::pair<const char*, unsigned>> {};

TEST_P(MadeByOpenSsl, AnswersAsOpenSsl) {
    const auto [curve, rsaBits] = GetParam();
    const auto key = curve != nullptr ? testing::makeEcKey(curve) : testing::makeRsaKey(rsaBits);
    const Bytes der = testing::makeCertificate(key.get(), "Zoë Test", 30, "zoe@example.com");
    SCOPED_TRACE(curve != nullptr ? curve : "RSA");
    expectSameAnswers(der);

    const unsigned char* cursor = der.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(der.size())), X509_free);
    const auto view = readCertificate(der);
    ASSERT_TRUE(view);
    EXPECT_EQ(Bytes(view->serialNumber().begin(), view->serialNumber().end()),
              derOf(X509_get_serialNumber(x509.get()), i2d_ASN1_INTEGER));
    EXPECT_EQ(Bytes(view->issuer().begin(), view->issuer().end()),
              derOf(X509_get_issuer_name(x509.get()), i2d_X509_NAME));
    EXPECT_EQ(Bytes(view->subject().begin(), view->subject().end()),
              derOf(X509_get_subject_name(x509.get()), i2d_X509_NAME));
    EXPECT_EQ(Bytes(view->subjectPublicKeyInfo().begin(), view->subjectPublicKeyInfo().end()),
              derOf(X509_get_X509_PUBKEY(x509.get()), i2d_X509_PUBKEY));
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(x509.get());
    EXPECT_EQ(Bytes(view->subjectPublicKey().begin(), view->subjectPublicKey().end()),
              Bytes(bits->data, bits->data + bits->length));
}

INSTANTIATE_TEST_SUITE_P(Keys, MadeByOpenSsl,
                         ::testing::Values(std::pair{"P-256", 0U}, std::pair{"P-384", 0U},
                                           std::pair{"P-521", 0U},
                                           std::pair<const char*, unsigned>{nullptr, 2048U},
                                           std::pair<const char*, unsigned>{nullptr, 1031U}));

TEST(ReadCertificate, RefusesEveryTruncationAndTrailingBytes) {
    const auto key = testing::makeEcKey();
    Bytes der = testing::makeCertificate(key.get());
    for (std::size_t cut = 0; cut < der.size(); ++cut)
        EXPECT_FALSE(readCertificate(ByteView(der).first(cut))) << cut;
    der.push_back(0x00);
    EXPECT_FALSE(readCertificate(der));
}

// ---- Built certificates: each row is compared with OpenSSL's answers.

TEST(ReadCertificate, NameStringTypesAsOpenSsl) {
    const std::vector<Bytes> contents{
        bytesOf("Ab 1"),
        {},
        {0xE9},
        bytesOf("Zo\xC3\xAB"),
        {0xC3},
        {0xC0, 0x80},
        {0xED, 0xA0, 0x80},
        {0xF4, 0x90, 0x80, 0x80},
        {0x00, 0x41, 0x00, 0xE9},
        {0x00, 0x41, 0x00},
        {0xD8, 0x00, 0xDC, 0x00},
        {0x00, 0x01, 0xF6, 0x00},
        {0x00, 0x11, 0x00, 0x00},
        {0x00, 0x41},
        {0x05, 0x00},  // fits a BIT STRING and a NULL
    };
    for (std::uint8_t tag = 0; tag <= 0x1E; ++tag) {
        for (const auto& content : contents) {
            SCOPED_TRACE(::testing::Message() << "tag " << int(tag) << " size " << content.size()
                                              << " first " << (content.empty() ? -1 : content[0]));
            Parts parts;
            parts.subject = name({attribute(cnOid, tlv(tag, content))});
            expectSameAnswers(build(parts));
        }
    }
    Parts parts;
    parts.subject = name({attribute(cnOid, tlv(0x30, {text(0x0C, "x")}))});
    expectSameAnswers(build(parts));
}

TEST(ReadCertificate, NamesAndAddressesAsOpenSsl) {
    const Bytes email1 = attribute(emailOid, text(0x16, "one@example.com"));
    const Bytes email2 = attribute(emailOid, text(0x16, "t\xE9@example.com"));
    const Bytes rfc822 = text(0x81, "alt@example.com");
    const Bytes dns = text(0x82, "example.com");
    const Bytes directory = tlv(0xA4, {name({attribute(cnOid, text(0x13, "Dir"))})});
    const Bytes otherName =
        tlv(0xA0, {tlv(0x06, Bytes{0x2B, 0x06, 0x01}), tlv(0xA0, {text(0x0C, "other")})});
    const Bytes sans = alternativeNames(tlv(0x30, {dns, rfc822, otherName, directory}));
    const Bytes critical = tlv(0x01, Bytes{0xFF});
    const std::vector<std::pair<Bytes, Bytes>> rows{
        // subject, extensions
        {name({}), {}},
        {name({attribute(emailOid, text(0x16, "x@example.com"))}), {}},
        {name({attribute(cnOid, text(0x13, "First")), email1,
               attribute(cnOid, text(0x0C, "Second")), email2}),
         sans},
        {tlv(0x30, {tlv(0x31, concat({attribute(cnOid, text(0x0C, "A")),
                                      attribute(cnOid, text(0x0C, "B"))}))}),
         {}},
        {name({email1}),
         tlv(0x30, {tlv(0x06, Bytes{0x55, 0x1D, 0x11}), critical, tlv(0x04, tlv(0x30, {rfc822}))})},
        {name({email1}), concat({sans, sans})},  // twice: no alternative names at all
        {name({email1}), alternativeNames(concat({tlv(0x30, {rfc822}), Bytes{0x01, 0x02}}))},
        {name({email1}), alternativeNames(tlv(0x30, {rfc822, text(0x89, "bad")}))},
        {name({email1}), alternativeNames(tlv(0x30, {rfc822, tlv(0xA4, {text(0x13, "x")})}))},
        {name({email1}), alternativeNames(tlv(0x30, {rfc822, text(0x88, "\x80")}))},
        {name({email1}), alternativeNames(tlv(0x31, {rfc822}))},
        {name({email1}), alternativeNames(tlv(0x30, Bytes{}))},
        {name({email1}), alternativeNames({})},
        {name({email1}), tlv(0x30, {tlv(0x06, Bytes{0x55, 0x1D, 0x11}),
                                    tlv(0x01, Bytes{0xFF, 0xFF}), tlv(0x04, tlv(0x30, Bytes{}))})},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        Parts parts;
        parts.subject = rows[i].first;
        parts.extensions = rows[i].second;
        expectSameAnswers(build(parts));
    }
}

TEST(ReadCertificate, TimesAsOpenSsl) {
    const std::vector<std::pair<std::uint8_t, std::string>> rows{
        {0x17, "500101000000Z"},       {0x17, "491231235959Z"},
        {0x17, "000229120000Z"},       {0x17, "010229120000Z"},
        {0x17, "2401010000Z"},         {0x17, "240101000060Z"},
        {0x17, "240101240000Z"},       {0x17, "241301000000Z"},
        {0x17, "240100000000Z"},       {0x17, "240101000000+0130"},
        {0x17, "240101000000-1200"},   {0x17, "240101000000+1300"},
        {0x17, "240101000000+013"},    {0x17, "2401010000+0100"},
        {0x17, "240101000000z"},       {0x17, "240101000000"},
        {0x17, "240101000000Z0"},      {0x17, "24010100000Z"},
        {0x17, "2401010000"},          {0x17, "24 101000000Z"},
        {0x17, "500101000000+0100"},   {0x18, "20500101000000Z"},
        {0x18, "99991231235959Z"},     {0x18, "19500101000000Z"},
        {0x18, "00000101000000Z"},     {0x18, "21000229000000Z"},
        {0x18, "20000229000000Z"},     {0x18, "202401010000Z"},
        {0x18, "20240101000000.5Z"},   {0x18, "20240101000000.Z"},
        {0x18, "20240101000000.123"},  {0x18, "20240101000000.1+0100"},
        {0x18, "2024010100Z"},         {0x18, "99991231235959-0001"},
        {0x18, "18991231235959+0000"}, {0x18, "19000101000000+0001"},
        {0x18, "240101000000Z"},       {0x04, "240101000000Z"},
    };
    for (const auto& [tag, value] : rows) {
        SCOPED_TRACE(value);
        Parts parts;
        parts.notAfter = text(tag, value);
        expectSameAnswers(build(parts));
        parts.notBefore = parts.notAfter;
        parts.notAfter = text(0x17, "340101000000Z");
        expectSameAnswers(build(parts));
    }
}

TEST(ReadCertificate, StructureAsOpenSsl) {
    const auto withTbs = [](auto change) {
        Parts parts;
        change(parts);
        return build(parts);
    };
    const Bytes bitString = tlv(0x03, Bytes{0x00, 0x01});
    const std::vector<Bytes> rows{
        withTbs([&](Parts& p) { p.version = {}; }),
        withTbs([&](Parts& p) { p.version = tlv(0xA0, {tlv(0x02, Bytes{0x07})}); }),
        withTbs([&](Parts& p) {
            p.version = tlv(0xA0, {tlv(0x02, Bytes{0x00, 0x02})});
        }),
        withTbs([&](Parts& p) {
            p.version = tlv(0xA0, {tlv(0x02, Bytes{0x02}), Bytes{5, 0}});
        }),
        withTbs([&](Parts& p) { p.serial = tlv(0x02, Bytes{}); }),
        withTbs([&](Parts& p) {
            p.serial = tlv(0x02, Bytes{0xFF, 0x80});
        }),
        withTbs([&](Parts& p) {
            p.serial = tlv(0x02, Bytes{0xFF, 0x7F});
        }),
        withTbs([&](Parts& p) { p.serial = tlv(0x04, Bytes{0x01}); }),
        withTbs([&](Parts& p) {
            p.signature = concat({ecdsaWithSha256, Bytes{0x05, 0x00}});
        }),
        withTbs([&](Parts& p) {
            p.signature = tlv(0x30, {tlv(0x06, Bytes{0x2A}), tlv(0x05, Bytes{0x00})});
        }),
        withTbs([&](Parts& p) {
            p.signature = tlv(0x30, {tlv(0x06, Bytes{0x2A, 0x80, 0x01})});
        }),
        withTbs([&](Parts& p) {
            p.signature = tlv(0x30, {tlv(0x06, Bytes{0x2A, 0x86})});
        }),
        withTbs([&](Parts& p) { p.signature = tlv(0x30, {tlv(0x06, Bytes{})}); }),
        withTbs([&](Parts& p) { p.issuer = tlv(0x30, {tlv(0x31, Bytes{})}); }),
        withTbs([&](Parts& p) { p.issuer = tlv(0x30, {tlv(0x30, Bytes{})}); }),
        withTbs([&](Parts& p) { p.issuer = tlv(0x30, {tlv(0x31, {tlv(0x30, {cnOid})})}); }),
        withTbs([&](Parts& p) {
            p.subject = concat({p.subject, bitString});
        }),
        withTbs([&](Parts& p) { p.extensions = tlv(0x30, {tlv(0x06, Bytes{0x2A})}); }),
        withTbs([&](Parts& p) {
            p.extensions = tlv(0x30, {tlv(0x06, Bytes{0x2A}), tlv(0x04, Bytes{0x05, 0x00})});
        }),
        withTbs([&](Parts& p) {
            p.extensions =
                tlv(0x30, {tlv(0x06, Bytes{0x2A}), tlv(0x01, Bytes{}), tlv(0x04, Bytes{})});
        }),
        withTbs([&](Parts& p) {
            p.publicKeyInfo = tlv(0x30, {ecdsaWithSha256, bitString});
        }),
        withTbs([&](Parts& p) {
            p.publicKeyInfo = tlv(0x30, {ecdsaWithSha256, tlv(0x03, Bytes{0x08, 0x00})});
        }),
        withTbs([&](Parts& p) { p.publicKeyInfo = tlv(0x30, {ecdsaWithSha256}); }),
        withTbs([&](Parts& p) {
            p.publicKeyInfo = concat({p.publicKeyInfo, tlv(0x81, Bytes{0x00}), tlv(0x82, Bytes{})});
        }),
        withTbs([&](Parts& p) {
            p.publicKeyInfo = concat({p.publicKeyInfo, tlv(0x82, Bytes{0x00})});
        }),
        withTbs([&](Parts& p) {
            p.publicKeyInfo = concat({p.publicKeyInfo, tlv(0x81, Bytes{})});
        }),
        withTbs([&](Parts& p) {
            p.publicKeyInfo = concat({p.publicKeyInfo, Bytes{0x05, 0x00}});
        }),
        withTbs([&](Parts& p) { p.signature = tlv(0x30, {ecdsaWithSha256}); }),
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        expectSameAnswers(rows[i]);
    }
}

TEST(ReadCertificate, RefusesWhatIsNotOneDerCertificate) {
    const Bytes der = build(Parts{});
    ASSERT_TRUE(readCertificate(der));
    const ByteView content = ByteView(der).subspan(4);  // after 30 82 xx xx
    const std::vector<Bytes> rows{
        {},
        {0x30, 0x00},
        concat({Bytes{0x31, 0x82, der[2], der[3]}, content}),
        concat({Bytes{0x30, 0x80}, content, Bytes{0x00, 0x00}}),  // indefinite
        concat({Bytes{0x30, 0x85, 0x00, 0x00, 0x00, der[2], der[3]}, content}),
        concat({Bytes{0x30, 0x83, 0x00, der[2], der[3]}, content}),  // longer than needed
        concat({Bytes{0x30, 0x82, der[2], der[3]}, content.first(content.size() - 1)}),
        {0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF},
        tlv(0x30, {der}),
        build([] {  // OpenSSL takes a SEQUENCE OF with a primitive tag; it is not DER
            Parts parts;
            parts.subject[0] = 0x10;
            return parts;
        }()),
    };
    for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_FALSE(readCertificate(rows[i])) << i;
}

// The key is read from the structure alone, so some keys OpenSSL decodes are left out.
TEST(ReadCertificate, PublicKeyRules) {
    const Bytes ecKey = tlv(0x06, Bytes{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01});
    const Bytes p256 = tlv(0x06, Bytes{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07});
    const Bytes rsaKey = tlv(0x06, Bytes{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01});
    Bytes point(1 + 64, 0x11);
    point[0] = 0x04;
    const auto ecInfo = [&](std::uint8_t unusedBits, ByteView bits, const Bytes& curve) {
        return tlv(0x30, {tlv(0x30, {ecKey, curve}), tlv(0x03, {Bytes{unusedBits}, bits})});
    };
    const auto rsaInfo = [&](const Bytes& modulus) {
        const Bytes key = tlv(0x30, {tlv(0x02, modulus), tlv(0x02, Bytes{0x03})});
        return tlv(0x30, {tlv(0x30, {rsaKey, tlv(0x05, Bytes{})}), tlv(0x03, {Bytes{0x00}, key})});
    };
    const std::vector<std::pair<Bytes, std::optional<int>>> rows{
        {ecInfo(0, point, p256), 256},
        {ecInfo(1, point, p256), std::nullopt},                      // unused bits
        {ecInfo(0, ByteView(point).first(33), p256), std::nullopt},  // short point
        {ecInfo(0, Bytes{0x02, 0x11}, p256), std::nullopt},          // compressed
        {ecInfo(0, point, tlv(0x06, Bytes{0x2B, 0x81, 0x04, 0x00, 0x0A})), std::nullopt},
        {ecInfo(0, point, tlv(0x05, Bytes{})), std::nullopt},
        {rsaInfo(Bytes{0x00, 0x80, 0x01}), 16},
        {rsaInfo(Bytes{0x00}), std::nullopt},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        Parts parts;
        parts.publicKeyInfo = rows[i].first;
        const Bytes der = build(parts);
        const auto view = readCertificate(der);
        ASSERT_TRUE(view) << i;
        const auto key = view->publicKey();
        ASSERT_EQ(key.has_value(), rows[i].second.has_value()) << i;
        if (key) {
            EXPECT_EQ(key->sizeInBits, *rows[i].second) << i;
        }
    }
}

TEST(ReadCertificate, ValidAtItsBoundaries) {
    using namespace std::chrono;
    const Bytes der = build(Parts{});
    const auto view = readCertificate(der);
    ASSERT_TRUE(view);
    const system_clock::time_point from = *view->notBefore();
    const system_clock::time_point to = *view->notAfter();
    EXPECT_TRUE(view->isValidAt(from));
    EXPECT_TRUE(view->isValidAt(to));
    EXPECT_FALSE(view->isValidAt(from - nanoseconds(1)));
    EXPECT_FALSE(view->isValidAt(to + nanoseconds(1)));

    Parts endless;
    endless.notAfter = text(0x18, "99991231235959Z");
    const Bytes endlessDer = build(endless);
    EXPECT_TRUE(readCertificate(endlessDer)->isValidAt(system_clock::time_point::max()));
    Parts unreadable;
    unreadable.notBefore = text(0x17, "2401010000000Z");
    const Bytes unreadableDer = build(unreadable);
    EXPECT_FALSE(readCertificate(unreadableDer)->isValidAt(system_clock::now()));
}

}  // namespace
}  // namespace keyloft::x509
