#include "der/record.hpp"

#include <gtest/gtest.h>

#include "der/object_identifiers.hpp"

namespace keyloft::der {
namespace {

struct Case {
    const char* name;
    Record record;
    Bytes expected;
};

class Encoding : public ::testing::TestWithParam<Case> {};

TEST_P(Encoding, IsDistinguished) {
    EXPECT_EQ(encode(GetParam().record), GetParam().expected) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(
    Records, Encoding,
    ::testing::Values(
        Case{"0", integerRecord(0), {0x02, 0x01, 0x00}},
        Case{"2", integerRecord(2), {0x02, 0x01, 0x02}},
        Case{"127", integerRecord(127), {0x02, 0x01, 0x7F}},
        Case{"255", integerRecord(255), {0x02, 0x02, 0x00, 0xFF}},
        Case{"128", integerRecord(128), {0x02, 0x02, 0x00, 0x80}},
        Case{"2048", integerRecord(2048), {0x02, 0x02, 0x08, 0x00}},
        Case{"65280", integerRecord(65280), {0x02, 0x03, 0x00, 0xFF, 0x00}},
        Case{"-1", integerRecord(-1), {0x02, 0x01, 0xFF}},
        Case{"-128", integerRecord(-128), {0x02, 0x01, 0x80}},
        Case{"-129", integerRecord(-129), {0x02, 0x02, 0xFF, 0x7F}},
        Case{"-65536", integerRecord(-65536), {0x02, 0x03, 0xFF, 0x00, 0x00}},
        Case{"min", integerRecord(INT64_MIN), {0x02, 0x08, 0x80, 0, 0, 0, 0, 0, 0, 0}},
        Case{"max",
             integerRecord(INT64_MAX),
             {0x02, 0x08, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        Case{"unsigned 80 01",
             unsignedIntegerRecord(Bytes{0x80, 0x01}),
             {0x02, 0x03, 0x00, 0x80, 0x01}},
        Case{"unsigned 7F FF", unsignedIntegerRecord(Bytes{0x7F, 0xFF}), {0x02, 0x02, 0x7F, 0xFF}},
        Case{"unsigned 00 01", unsignedIntegerRecord(Bytes{0x00, 0x01}), {0x02, 0x02, 0x00, 0x01}},
        Case{"unsigned empty", unsignedIntegerRecord({}), {0x02, 0x00}},
        Case{"bits 0x03", namedBitsRecord(0x03), {0x03, 0x02, 0x06, 0xC0}},
        Case{"bits 0x14", namedBitsRecord(0x14), {0x03, 0x02, 0x03, 0x28}},
        Case{"bits 0x01", namedBitsRecord(0x01), {0x03, 0x02, 0x07, 0x80}},
        Case{"bits 0x80", namedBitsRecord(0x80), {0x03, 0x02, 0x00, 0x01}},
        Case{"bits none", namedBitsRecord(0), {0x03, 0x01, 0x00}},
        Case{"empty sequence", sequenceRecord({}), {0x30, 0x00}},
        Case{"empty ascii", asciiStringRecord(tag::ia5String, ""), {0x16, 0x00}},
        Case{"lossy ascii",
             asciiStringRecord(tag::ia5String, "a\xC3\xA9z"),
             {0x16, 0x03, 'a', '?', 'z'}},
        Case{"wrapped",
             wrapInOctetString(sequenceRecord({nullRecord()})),
             {0x04, 0x04, 0x30, 0x02, 0x05, 0x00}},
        Case{"true", booleanTrueRecord(), {0x01, 0x01, 0xFF}},
        Case{"oid", oidRecord(oid::commonName), {0x06, 0x03, 0x55, 0x04, 0x03}}));

TEST(Lengths, UseTheShortestDefiniteForm) {
    for (const auto& [size, prefix] :
         std::vector<std::pair<std::size_t, Bytes>>{{127, {0x04, 0x7F}},
                                                    {128, {0x04, 0x81, 0x80}},
                                                    {255, {0x04, 0x81, 0xFF}},
                                                    {256, {0x04, 0x82, 0x01, 0x00}},
                                                    {65536, {0x04, 0x83, 0x01, 0x00, 0x00}}}) {
        const Bytes encoded = encode(octetStringRecord(Bytes(size, 0xAB)));
        EXPECT_EQ(
            Bytes(encoded.begin(), encoded.begin() + static_cast<std::ptrdiff_t>(prefix.size())),
            prefix)
            << size;
        EXPECT_EQ(encoded.size(), prefix.size() + size);
    }
    const Bytes bits = encode(bitStringRecord(Bytes(65, 0x04)));
    EXPECT_EQ(Bytes(bits.begin(), bits.begin() + 3), (Bytes{0x03, 0x42, 0x00}));
}

}  // namespace
}  // namespace keyloft::der
