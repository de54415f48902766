#include "platform/certificate_service/subject_public_key.hpp"

#include <algorithm>
#include <array>
#include <bit>

namespace keyloft::platform::certificate_service {
namespace {

struct Element {
    std::uint8_t tag = 0;
    ByteView content;
};

// Reads one DER element and moves the cursor past it.
std::optional<Element> next(ByteView& cursor) {
    if (cursor.size() < 2) return std::nullopt;
    const std::uint8_t tag = cursor[0];
    std::size_t length = cursor[1];
    std::size_t header = 2;
    if (length & 0x80U) {
        const std::size_t count = length & 0x7FU;
        if (count == 0 || count > 4 || cursor.size() < 2 + count) return std::nullopt;
        length = 0;
        for (std::size_t i = 0; i < count; ++i) length = (length << 8U) | cursor[2 + i];
        header += count;
    }
    if (length > cursor.size() - header) return std::nullopt;
    Element element{tag, cursor.subspan(header, length)};
    cursor = cursor.subspan(header + length);
    return element;
}

bool equals(ByteView a, std::initializer_list<std::uint8_t> b) {
    return std::ranges::equal(a, b);
}

int ecSizeOf(ByteView curve) {
    if (equals(curve, {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07})) return 256;
    if (equals(curve, {0x2B, 0x81, 0x04, 0x00, 0x22})) return 384;
    if (equals(curve, {0x2B, 0x81, 0x04, 0x00, 0x23})) return 521;
    return 0;
}

// Bits of the modulus of a DER RSAPublicKey.
int rsaSizeOf(ByteView key) {
    auto outer = next(key);
    if (!outer || outer->tag != 0x30) return 0;
    auto inner = outer->content;
    auto modulus = next(inner);
    if (!modulus || modulus->tag != 0x02) return 0;
    auto digits = modulus->content;
    while (!digits.empty() && digits[0] == 0) digits = digits.subspan(1);
    if (digits.empty()) return 0;
    return static_cast<int>((digits.size() - 1) * 8) +
           std::bit_width(static_cast<unsigned>(digits[0]));
}

}  // namespace

std::optional<PublicKeyAttributes> subjectPublicKeyOf(ByteView certificate) {
    auto cursor = certificate;
    const auto outer = next(cursor);
    if (!outer || outer->tag != 0x30) return std::nullopt;
    auto fields = outer->content;
    const auto tbs = next(fields);
    if (!tbs || tbs->tag != 0x30) return std::nullopt;
    auto tbsFields = tbs->content;
    // version (optional [0]), serialNumber, signature, issuer, validity, subject, then the key.
    auto element = next(tbsFields);
    if (element && element->tag == 0xA0) element = next(tbsFields);
    for (int skipped = 0; skipped < 5 && element; ++skipped) element = next(tbsFields);
    if (!element || element->tag != 0x30) return std::nullopt;
    auto spki = element->content;
    const auto algorithm = next(spki);
    const auto bits = next(spki);
    if (!algorithm || algorithm->tag != 0x30 || !bits || bits->tag != 0x03 ||
        bits->content.empty() || bits->content[0] != 0) {
        return std::nullopt;
    }
    auto identifiers = algorithm->content;
    const auto type = next(identifiers);
    const auto parameters = next(identifiers);
    const ByteView key = bits->content.subspan(1);
    if (!type || type->tag != 0x06) return std::nullopt;
    if (equals(type->content, {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01}) && parameters &&
        parameters->tag == 0x06) {
        const int size = ecSizeOf(parameters->content);
        if (size == 0 || key.size() != 1 + 2 * static_cast<std::size_t>((size + 7) / 8) ||
            key[0] != 0x04) {
            return std::nullopt;
        }
        return PublicKeyAttributes{std::string(keyTypeEC), size, Bytes(key.begin(), key.end())};
    }
    if (equals(type->content, {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01})) {
        const int size = rsaSizeOf(key);
        if (size == 0) return std::nullopt;
        return PublicKeyAttributes{std::string(keyTypeRSA), size, Bytes(key.begin(), key.end())};
    }
    return std::nullopt;
}

}  // namespace keyloft::platform::certificate_service
