#include "der/ecdsa_signature.hpp"

#include <algorithm>

#include "der/reader.hpp"

namespace keyloft::der {
namespace {

// A positive INTEGER's magnitude, left-padded into out; false when it does not fit.
bool placeMagnitude(const std::optional<Element>& integer, std::span<std::uint8_t> out) {
    if (!integer) return false;
    ByteView magnitude = integer->content;
    if (magnitude.empty() || (magnitude[0] & 0x80U) != 0) return false;
    while (magnitude.size() > 1 && magnitude[0] == 0) magnitude = magnitude.subspan(1);
    if (magnitude.size() > out.size()) return false;
    std::copy(magnitude.begin(), magnitude.end(), out.end() - magnitude.size());
    return true;
}

}  // namespace

std::optional<Bytes> rawEcdsaSignature(ByteView signature, std::size_t fieldSize) {
    const auto parsed = readSingleElement(signature);
    if (!parsed || parsed->tag != tag::sequence) return std::nullopt;
    Cursor numbers(*parsed);
    const auto r = numbers.next(tag::integer);
    const auto s = numbers.next(tag::integer);
    if (!numbers.atEnd()) return std::nullopt;
    Bytes raw(2 * fieldSize);
    const std::span<std::uint8_t> out(raw);
    if (!placeMagnitude(r, out.first(fieldSize)) || !placeMagnitude(s, out.last(fieldSize)))
        return std::nullopt;
    return raw;
}

}  // namespace keyloft::der
