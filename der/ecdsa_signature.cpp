#include "der/ecdsa_signature.hpp"

#include <algorithm>

#include "der/ber_tlv_record.hpp"

namespace keyloft::der {
namespace {

// A positive INTEGER's magnitude, left-padded into out; false when it does not fit.
bool placeMagnitude(const BerTlvRecord& integer, std::span<std::uint8_t> out) {
    if (integer.tag() != tag::integer) return false;
    ByteView magnitude(integer.bytes());
    if (magnitude.empty() || (magnitude[0] & 0x80U) != 0) return false;
    while (magnitude.size() > 1 && magnitude[0] == 0) magnitude = magnitude.subspan(1);
    if (magnitude.size() > out.size()) return false;
    std::copy(magnitude.begin(), magnitude.end(), out.end() - magnitude.size());
    return true;
}

}  // namespace

std::optional<Bytes> rawEcdsaSignature(ByteView signature, std::size_t fieldSize) {
    const auto parsed = parseRecord(signature);
    if (!parsed || parsed->tag() != tag::sequence) return std::nullopt;
    const auto numbers = parseContents(parsed->bytes());
    if (!numbers || numbers->size() != 2) return std::nullopt;
    Bytes raw(2 * fieldSize);
    const std::span<std::uint8_t> out(raw);
    if (!placeMagnitude((*numbers)[0], out.first(fieldSize)) ||
        !placeMagnitude((*numbers)[1], out.last(fieldSize))) {
        return std::nullopt;
    }
    return raw;
}

}  // namespace keyloft::der
