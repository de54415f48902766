#pragma once

#include <cstdint>

// The one-byte tags the reader takes and records are built with: class, constructed bit and a tag
// number below 31.
namespace keyloft::der::tag {

inline constexpr std::uint8_t boolean = 0x01;
inline constexpr std::uint8_t integer = 0x02;
inline constexpr std::uint8_t bitString = 0x03;
inline constexpr std::uint8_t octetString = 0x04;
inline constexpr std::uint8_t null = 0x05;
inline constexpr std::uint8_t objectIdentifier = 0x06;
inline constexpr std::uint8_t utf8String = 0x0C;
inline constexpr std::uint8_t printableString = 0x13;
inline constexpr std::uint8_t ia5String = 0x16;
inline constexpr std::uint8_t utcTime = 0x17;
inline constexpr std::uint8_t generalizedTime = 0x18;
inline constexpr std::uint8_t sequence = 0x30;
inline constexpr std::uint8_t set = 0x31;
inline constexpr std::uint8_t contextPrimitive0 = 0x80;
inline constexpr std::uint8_t contextPrimitive1 = 0x81;
inline constexpr std::uint8_t contextConstructed0 = 0xA0;
inline constexpr std::uint8_t contextConstructed1 = 0xA1;
inline constexpr std::uint8_t contextConstructed3 = 0xA3;

inline constexpr std::uint8_t constructedBit = 0x20;
inline constexpr std::uint8_t classBits = 0xC0;
inline constexpr std::uint8_t numberBits = 0x1F;

}  // namespace keyloft::der::tag
