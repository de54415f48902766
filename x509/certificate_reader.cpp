#include "x509/certificate_reader.hpp"

#include <algorithm>
#include <array>
#include <bit>

#include "base/utf8.hpp"
#include "der/reader.hpp"

namespace keyloft::x509 {
namespace {

using der::Cursor;
using der::Element;

constexpr std::array<std::uint8_t, 3> commonNameOid{0x55, 0x04, 0x03};
constexpr std::array<std::uint8_t, 9> emailAddressOid{0x2A, 0x86, 0x48, 0x86, 0xF7,
                                                      0x0D, 0x01, 0x09, 0x01};
constexpr std::array<std::uint8_t, 3> subjectAltNameOid{0x55, 0x1D, 0x11};
constexpr std::array<std::uint8_t, 7> ecPublicKeyOid{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
constexpr std::array<std::uint8_t, 9> rsaEncryptionOid{0x2A, 0x86, 0x48, 0x86, 0xF7,
                                                       0x0D, 0x01, 0x01, 0x01};
constexpr std::array<std::uint8_t, 8> p256Oid{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr std::array<std::uint8_t, 5> p384Oid{0x2B, 0x81, 0x04, 0x00, 0x22};
constexpr std::array<std::uint8_t, 5> p521Oid{0x2B, 0x81, 0x04, 0x00, 0x23};

// Universal tag numbers of the string types.
enum StringTag : std::uint8_t {
    utf8String = 12,
    numericString = 18,
    printableString = 19,
    teletexString = 20,
    ia5String = 22,
    visibleString = 26,
    universalString = 28,
    bmpString = 30,
};

constexpr std::uint8_t universalClass = 0x00;
constexpr std::uint8_t rfc822NameTag = 0x81;

template <std::size_t n>
bool equals(ByteView bytes, const std::array<std::uint8_t, n>& expected) {
    return std::ranges::equal(bytes, expected);
}

bool isUniversal(std::uint8_t tagByte) {
    return (tagByte & der::tag::classBits) == universalClass;
}

// ---- Text ----------------------------------------------------------------------------------

bool isScalarValue(std::uint32_t c) {
    return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

// Calls emit(c) for each character of well-formed UTF-8 of scalar values: no overlong forms,
// surrogates or values past U+10FFFF.
template <class Emit>
bool forEachUtf8Character(ByteView bytes, Emit&& emit) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        const std::uint8_t lead = bytes[i];
        std::size_t count = 1;
        std::uint32_t value = lead;
        std::uint32_t smallest = 0;
        if (lead < 0x80) {
            // one byte
        } else if ((lead & 0xE0) == 0xC0) {
            count = 2, value = lead & 0x1FU, smallest = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            count = 3, value = lead & 0x0FU, smallest = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            count = 4, value = lead & 0x07U, smallest = 0x10000;
        } else {
            return false;
        }
        if (bytes.size() - i < count) return false;
        for (std::size_t k = 1; k < count; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80) return false;
            value = (value << 6U) | (bytes[i + k] & 0x3FU);
        }
        if (value < smallest || !isScalarValue(value)) return false;
        emit(value);
        i += count;
    }
    return true;
}

// Big-endian code units of `width` bytes (BMPString, UniversalString), each a scalar value.
template <class Emit>
bool forEachWideCharacter(ByteView bytes, std::size_t width, Emit&& emit) {
    if (bytes.size() % width != 0) return false;
    for (std::size_t i = 0; i < bytes.size(); i += width) {
        std::uint32_t c = 0;
        for (std::size_t k = 0; k < width; ++k) c = (c << 8U) | bytes[i + k];
        if (!isScalarValue(c)) return false;
        emit(c);
    }
    return true;
}

// Calls emit(c) for each character of a string value; false for types without a text form and
// for malformed text. These are the characters of OpenSSL's ASN1_STRING_to_UTF8, which reads the
// one-byte types as Latin-1.
template <class Emit>
bool forEachCharacter(std::uint8_t tagByte, ByteView content, Emit&& emit) {
    switch (tagByte) {
        case utf8String:
            return forEachUtf8Character(content, emit);
        case numericString:
        case printableString:
        case teletexString:
        case ia5String:
        case der::tag::utcTime:
        case der::tag::generalizedTime:
        case visibleString:
            for (const std::uint8_t c : content) emit(c);
            return true;
        case universalString:
            return forEachWideCharacter(content, 4, emit);
        case bmpString:
            return forEachWideCharacter(content, 2, emit);
        default:
            return false;
    }
}

bool hasText(std::uint8_t tagByte, ByteView content) {
    return forEachCharacter(tagByte, content, [](std::uint32_t) {});
}

// A string value as UTF-8, or nothing when it has no text form.
std::optional<std::string> textOf(std::uint8_t tagByte, ByteView content) {
    std::string text;
    text.reserve(content.size());
    if (!forEachCharacter(tagByte, content, [&](std::uint32_t c) { appendUtf8(text, c); }))
        return std::nullopt;
    return text;
}

// ---- Structure -------------------------------------------------------------------------------
//
// The checks below refuse what OpenSSL's certificate parser refuses in a DER certificate, so that
// a certificate reads here exactly when it reads there. Forms that are not DER are refused here
// although OpenSSL takes them: indefinite lengths, lengths written longer than needed, constructed
// strings, and a SEQUENCE OF or SET OF written with a primitive tag.

// A value of a type that OpenSSL decodes by its tag (ANY): the primitive types it checks must
// hold their content rules.
bool isAnyValue(const Element& element) {
    if (!isUniversal(element.tag)) return true;
    const auto number = static_cast<std::uint8_t>(element.tag & der::tag::numberBits);
    const bool constructed = (element.tag & der::tag::constructedBit) != 0;
    if (number == (der::tag::sequence & der::tag::numberBits) ||
        number == (der::tag::set & der::tag::numberBits)) {
        return constructed;
    }
    if (constructed) return false;
    const auto& content = element.content;
    switch (element.tag) {
        case der::tag::boolean:
            return content.size() == 1;
        case der::tag::integer:
        case 0x0A:  // ENUMERATED
            return der::isMinimalInteger(content);
        case der::tag::bitString:
            return der::isBitString(content);
        case der::tag::null:
            return content.empty();
        case der::tag::objectIdentifier:
            return der::isObjectIdentifier(content);
        case universalString:
            return content.size() % 4 == 0;
        case bmpString:
            return content.size() % 2 == 0;
        default:
            return true;
    }
}

// An attribute value in a Name: one of the types OpenSSL takes there, and for the string types it
// compares names by, convertible to text.
bool isNameValue(const Element& value) {
    switch (value.tag) {
        case der::tag::sequence:
            return true;
        case der::tag::bitString:
            return der::isBitString(value.content);
        case 0x07:  // ObjectDescriptor
        case 0x08:  // EXTERNAL
        case 0x09:  // REAL
        case 0x0B:  // EMBEDDED PDV
        case 0x0D:  // RELATIVE-OID
        case 0x0E:  // reserved
        case 0x0F:  // reserved
        case numericString:
        case 0x1D:  // CHARACTER STRING
            return true;
        case utf8String:
        case printableString:
        case teletexString:
        case ia5String:
        case universalString:
        case bmpString:
            return hasText(value.tag, value.content);
        default:
            return false;
    }
}

// Calls visit(type, value) for each attribute of a Name in order; false when the Name is
// malformed or visit returns false.
template <class Visit>
bool forEachAttribute(const Element& name, Visit&& visit) {
    if (name.tag != der::tag::sequence) return false;
    Cursor names(name);
    while (auto relative = names.next(der::tag::set)) {
        Cursor attributes(*relative);
        while (auto attribute = attributes.next(der::tag::sequence)) {
            Cursor parts(*attribute);
            const auto type = parts.next(der::tag::objectIdentifier);
            const auto value = parts.next();
            if (!type || !value || !parts.atEnd() || !der::isObjectIdentifier(type->content))
                return false;
            if (!visit(type->content, *value)) return false;
        }
        if (!attributes.atEnd()) return false;
    }
    return names.atEnd();
}

bool isName(const Element& name) {
    return forEachAttribute(name,
                            [](ByteView, const Element& value) { return isNameValue(value); });
}

bool isAlgorithmIdentifier(const std::optional<Element>& element) {
    if (!element || element->tag != der::tag::sequence) return false;
    Cursor parts(*element);
    const auto algorithm = parts.next(der::tag::objectIdentifier);
    if (!algorithm || !der::isObjectIdentifier(algorithm->content)) return false;
    if (parts.atEnd()) return true;
    const auto parameters = parts.next();
    return parameters && isAnyValue(*parameters) && parts.atEnd();
}

bool isInteger(const std::optional<Element>& element) {
    return element && element->tag == der::tag::integer && der::isMinimalInteger(element->content);
}

bool isBitString(const std::optional<Element>& element) {
    return element && element->tag == der::tag::bitString && der::isBitString(element->content);
}

bool isTime(const std::optional<Element>& element) {
    return element &&
           (element->tag == der::tag::utcTime || element->tag == der::tag::generalizedTime);
}

// Reads the extensions, keeping the subject alternative names; false when malformed.
bool readExtensions(const Element& wrapper, ByteView& alternativeNames) {
    const auto extensions = der::readInnerElement(wrapper);
    if (!extensions || extensions->tag != der::tag::sequence) return false;
    bool seenAlternativeNames = false;
    Cursor list(*extensions);
    while (auto extension = list.next(der::tag::sequence)) {
        Cursor parts(*extension);
        const auto type = parts.next(der::tag::objectIdentifier);
        if (!type || !der::isObjectIdentifier(type->content)) return false;
        if (const auto critical = parts.next(der::tag::boolean); critical) {
            if (critical->content.size() != 1) return false;
        }
        const auto value = parts.next(der::tag::octetString);
        if (!value || !parts.atEnd()) return false;
        if (equals(type->content, subjectAltNameOid)) {
            // OpenSSL answers no names at all when the extension occurs twice.
            alternativeNames = seenAlternativeNames ? ByteView() : value->content;
            seenAlternativeNames = true;
        }
    }
    return list.atEnd();
}

// ---- Validity --------------------------------------------------------------------------------

int daysInMonth(int year, int month) {
    static constexpr std::array<int, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return days[static_cast<std::size_t>(month - 1)] + (month == 2 && leap ? 1 : 0);
}

bool isDigit(std::uint8_t c) {
    return c >= '0' && c <= '9';
}

// UTCTime (YYMMDDHHMM[SS], years 50 to 99 in the 1900s) or GeneralizedTime (YYYYMMDDHHMM[SS],
// optional fraction), then Z or an offset +HHMM/-HHMM, read as OpenSSL's ASN1_TIME_to_tm reads
// them: every field in range, seconds 59 at most, fractions dropped.
std::optional<CertificateView::TimePoint> timeOf(std::uint8_t tagByte, ByteView text) {
    using namespace std::chrono;
    const bool generalized = tagByte == der::tag::generalizedTime;
    if (!generalized && tagByte != der::tag::utcTime) return std::nullopt;
    // Two-digit fields, numbered as for GeneralizedTime; UTCTime starts at the year.
    enum Field { century, yearInCentury, month, day, hour, minute, second };
    static constexpr std::array<int, 7> lowest{0, 0, 1, 1, 0, 0, 0};
    static constexpr std::array<int, 7> highest{99, 99, 12, 31, 23, 59, 59};
    if (text.size() < (generalized ? 13U : 11U)) return std::nullopt;
    std::array<int, 7> value{0, 0, 1, 1, 0, 0, 0};
    std::size_t at = 0;
    int field = generalized ? century : yearInCentury;
    for (; field <= second; ++field) {
        const std::uint8_t c = text[at];
        if (field == second && (c == 'Z' || c == '+' || c == '-')) break;
        if (!isDigit(c) || ++at == text.size() || !isDigit(text[at]) || ++at == text.size())
            return std::nullopt;
        const int n = (c - '0') * 10 + (text[at - 1] - '0');
        const auto index = static_cast<std::size_t>(field);
        if (n < lowest[index] || n > highest[index]) return std::nullopt;
        value[index] = n;
        if (field == yearInCentury && !generalized) {
            value[century] = n < 50 ? 20 : 19;
        } else if (field == day &&
                   n > daysInMonth(value[century] * 100 + value[yearInCentury], value[month])) {
            return std::nullopt;
        }
    }
    if (generalized && text[at] == '.') {
        if (++at == text.size()) return std::nullopt;
        const std::size_t digits = at;
        while (at < text.size() && isDigit(text[at])) ++at;
        if (at == digits || at == text.size()) return std::nullopt;
    }
    int offsetSeconds = 0;
    if (text[at] == 'Z') {
        ++at;
    } else if (text[at] == '+' || text[at] == '-') {
        const bool ahead = text[at] == '+';
        if (++at + 4 != text.size()) return std::nullopt;
        for (std::size_t k = 0; k < 4; ++k) {
            if (!isDigit(text[at + k])) return std::nullopt;
        }
        const int hours = (text[at] - '0') * 10 + (text[at + 1] - '0');
        const int minutes = (text[at + 2] - '0') * 10 + (text[at + 3] - '0');
        if (hours > 12 || minutes > 59) return std::nullopt;
        offsetSeconds = (hours * 3600 + minutes * 60) * (ahead ? -1 : 1);
        at += 4;
    } else {
        return std::nullopt;
    }
    if (at != text.size()) return std::nullopt;
    const year_month_day date{year(value[century] * 100 + value[yearInCentury]),
                              std::chrono::month(static_cast<unsigned>(value[month])),
                              std::chrono::day(static_cast<unsigned>(value[day]))};
    const auto instant = sys_days(date) + hours(value[hour]) + minutes(value[minute]) +
                         seconds(value[second]) + seconds(offsetSeconds);
    if (offsetSeconds != 0) {
        // OpenSSL refuses a time that its offset moves out of the years 1900 to 9999.
        const int shiftedYear = static_cast<int>(year_month_day(floor<days>(instant)).year());
        if (shiftedYear < 1900 || shiftedYear > 9999) return std::nullopt;
    }
    return instant;
}

// ---- Alternative names -----------------------------------------------------------------------

// A DirectoryString inside an explicit tag, as in ediPartyName.
bool isExplicitDirectoryString(const Element& wrapper) {
    const auto value = der::readInnerElement(wrapper);
    if (!value) return false;
    switch (value->tag) {
        case printableString:
        case teletexString:
        case universalString:
        case utf8String:
        case bmpString:
            return isAnyValue(*value);
        default:
            return false;
    }
}

// One GeneralName in a form OpenSSL reads.
bool isGeneralName(const Element& name) {
    switch (name.tag) {
        case 0xA0: {  // otherName: type-id, [0] EXPLICIT value
            Cursor parts(name);
            const auto type = parts.next(der::tag::objectIdentifier);
            const auto wrapper = parts.next(0xA0);
            if (!type || !der::isObjectIdentifier(type->content) || !wrapper || !parts.atEnd())
                return false;
            const auto value = der::readInnerElement(*wrapper);
            return value && isAnyValue(*value);
        }
        case rfc822NameTag:
        case 0x82:  // dNSName
        case 0xA3:  // x400Address, kept undecoded
        case 0x86:  // uniformResourceIdentifier
        case 0x87:  // iPAddress
            return true;
        case 0xA4: {  // directoryName
            const auto directory = der::readInnerElement(name);
            return directory && isName(*directory);
        }
        case 0xA5: {  // ediPartyName: [0] nameAssigner OPTIONAL, [1] partyName
            Cursor parts(name);
            const auto assigner = parts.next(0xA0);
            const auto party = parts.next(0xA1);
            return (!assigner || isExplicitDirectoryString(*assigner)) && party &&
                   isExplicitDirectoryString(*party) && parts.atEnd();
        }
        case 0x88:  // registeredID
            return der::isObjectIdentifier(name.content);
        default:
            return false;
    }
}

// The rfc822Name texts of the extension value, or none when a name in it is unreadable. Bytes
// after the GeneralNames are ignored, as OpenSSL ignores them.
std::vector<std::string> alternativeEmails(ByteView extensionValue) {
    const auto names = der::readElement(extensionValue);
    if (!names || names->tag != der::tag::sequence) return {};
    std::vector<std::string> emails;
    Cursor list(*names);
    while (auto name = list.next()) {
        if (!isGeneralName(*name)) return {};
        if (name->tag == rfc822NameTag) emails.push_back(*textOf(ia5String, name->content));
    }
    if (!list.atEnd()) return {};
    return emails;
}

// ---- Public key ------------------------------------------------------------------------------

int ecSizeOf(ByteView curve) {
    if (equals(curve, p256Oid)) return 256;
    if (equals(curve, p384Oid)) return 384;
    if (equals(curve, p521Oid)) return 521;
    return 0;
}

// Bits of the modulus of a DER RSAPublicKey; 0 when there is none.
int rsaSizeOf(ByteView key) {
    const auto outer = der::readElement(key);
    if (!outer || outer->tag != der::tag::sequence) return 0;
    const auto modulus = Cursor(*outer).next(der::tag::integer);
    if (!modulus) return 0;
    auto digits = modulus->content;
    while (!digits.empty() && digits[0] == 0) digits = digits.subspan(1);
    if (digits.empty()) return 0;
    return static_cast<int>((digits.size() - 1) * 8) +
           std::bit_width(static_cast<unsigned>(digits[0]));
}

}  // namespace

std::optional<CertificateView> readCertificate(ByteView encoded) {
    const auto certificate = der::readSingleElement(encoded);
    if (!certificate || certificate->tag != der::tag::sequence) return std::nullopt;
    Cursor outer(*certificate);
    const auto tbs = outer.next(der::tag::sequence);
    if (!tbs || !isAlgorithmIdentifier(outer.next()) || !isBitString(outer.next()) ||
        !outer.atEnd()) {
        return std::nullopt;
    }

    Cursor fields(*tbs);
    if (const auto version = fields.next(0xA0); version) {
        if (!isInteger(der::readInnerElement(*version))) return std::nullopt;
    }
    const auto serial = fields.next();
    const bool signatureRead = isAlgorithmIdentifier(fields.next());
    const auto issuer = fields.next();
    const auto validity = fields.next(der::tag::sequence);
    const auto subject = fields.next();
    const auto publicKeyInfo = fields.next(der::tag::sequence);
    if (!isInteger(serial) || !signatureRead || !issuer || !isName(*issuer) || !validity ||
        !subject || !isName(*subject) || !publicKeyInfo) {
        return std::nullopt;
    }

    Cursor times(*validity);
    const auto notBefore = times.next();
    const auto notAfter = times.next();
    if (!isTime(notBefore) || !isTime(notAfter) || !times.atEnd()) return std::nullopt;

    Cursor keyParts(*publicKeyInfo);
    const bool keyAlgorithmRead = isAlgorithmIdentifier(keyParts.next());
    const auto keyBits = keyParts.next();
    if (!keyAlgorithmRead || !isBitString(keyBits) || !keyParts.atEnd()) return std::nullopt;

    if (const auto issuerId = fields.next(0x81); issuerId && !der::isBitString(issuerId->content))
        return std::nullopt;
    if (const auto subjectId = fields.next(0x82);
        subjectId && !der::isBitString(subjectId->content)) {
        return std::nullopt;
    }
    ByteView alternativeNames;
    if (const auto extensions = fields.next(0xA3);
        extensions && !readExtensions(*extensions, alternativeNames)) {
        return std::nullopt;
    }
    if (!fields.atEnd()) return std::nullopt;

    CertificateView view;
    view.serialNumber_ = serial->encoding;
    view.issuer_ = issuer->encoding;
    view.subject_ = subject->encoding;
    view.subjectPublicKeyInfo_ = publicKeyInfo->encoding;
    view.subjectPublicKey_ = keyBits->content.subspan(1);
    view.notBeforeTag_ = notBefore->tag;
    view.notBefore_ = notBefore->content;
    view.notAfterTag_ = notAfter->tag;
    view.notAfter_ = notAfter->content;
    view.alternativeNames_ = alternativeNames;
    return view;
}

std::optional<PublicKeyAttributes> CertificateView::publicKey() const {
    Cursor parts(*der::readElement(subjectPublicKeyInfo_));
    const auto algorithm = parts.next();
    const auto bits = parts.next();
    if (!algorithm || !bits || bits->content.empty() || bits->content[0] != 0) return std::nullopt;
    Cursor identifiers(*algorithm);
    const auto type = identifiers.next();
    const auto parameters = identifiers.next();
    const ByteView key = bits->content.subspan(1);
    if (!type) return std::nullopt;
    if (equals(type->content, ecPublicKeyOid) && parameters &&
        parameters->tag == der::tag::objectIdentifier) {
        const int size = ecSizeOf(parameters->content);
        if (size == 0 || key.size() != 1 + 2 * static_cast<std::size_t>((size + 7) / 8) ||
            key[0] != 0x04) {
            return std::nullopt;
        }
        return PublicKeyAttributes{std::string(keyTypeEC), size, Bytes(key.begin(), key.end())};
    }
    if (equals(type->content, rsaEncryptionOid)) {
        const int size = rsaSizeOf(key);
        if (size == 0) return std::nullopt;
        return PublicKeyAttributes{std::string(keyTypeRSA), size, Bytes(key.begin(), key.end())};
    }
    return std::nullopt;
}

std::optional<std::string> CertificateView::commonName() const {
    std::optional<std::string> name;
    forEachAttribute(*der::readElement(subject_), [&](ByteView type, const Element& value) {
        if (!equals(type, commonNameOid)) return true;
        name = textOf(value.tag, value.content).value_or(std::string());
        return false;
    });
    return name;
}

std::vector<std::string> CertificateView::emailAddresses() const {
    std::vector<std::string> addresses;
    forEachAttribute(*der::readElement(subject_), [&](ByteView type, const Element& value) {
        if (equals(type, emailAddressOid))
            addresses.push_back(textOf(value.tag, value.content).value_or(std::string()));
        return true;
    });
    auto alternatives = alternativeEmails(alternativeNames_);
    addresses.insert(addresses.end(), std::make_move_iterator(alternatives.begin()),
                     std::make_move_iterator(alternatives.end()));
    return addresses;
}

std::optional<CertificateView::TimePoint> CertificateView::notBefore() const {
    return timeOf(notBeforeTag_, notBefore_);
}

std::optional<CertificateView::TimePoint> CertificateView::notAfter() const {
    return timeOf(notAfterTag_, notAfter_);
}

bool CertificateView::isValidAt(std::chrono::system_clock::time_point instant) const {
    using std::chrono::seconds;
    const auto from = notBefore();
    const auto to = notAfter();
    // Compared in whole seconds, rounding the instant the way that keeps both comparisons exact.
    return from && to && *from <= std::chrono::floor<seconds>(instant) &&
           std::chrono::ceil<seconds>(instant) <= *to;
}

}  // namespace keyloft::x509
