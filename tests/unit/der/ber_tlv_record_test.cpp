#include "der/ber_tlv_record.hpp"

#include <gtest/gtest.h>

#include <random>

#include "der/object_identifiers.hpp"

namespace keyloft::der {
namespace {

struct Case {
    const char* name;
    BerTlvRecord record;
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

TEST(Parse, AcceptsExactlyOneCompleteRecord) {
    const Bytes good = encode(sequenceRecord({integerRecord(5), octetStringRecord(Bytes(200, 1))}));
    const auto parsed = parseRecord(good);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->tag(), 0x30);
    EXPECT_EQ(encode(*parsed), good);

    Bytes trailing = good;
    trailing.push_back(0);
    EXPECT_FALSE(parseRecord(trailing));
    EXPECT_FALSE(parseRecord(ByteView(good).first(good.size() - 1)));
    EXPECT_FALSE(parseRecord(Bytes{0x04}));
    EXPECT_FALSE(parseRecord(Bytes{0x04, 0x80}));
    EXPECT_FALSE(parseRecord(Bytes{0x04, 0x89, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    // An uncompressed EC point starts with the OCTET STRING tag but is not a record.
    Bytes point(65, 0x11);
    point[0] = 0x04;
    EXPECT_FALSE(parseRecord(point));
}

TEST(Parse, ArbitraryBytesNeverReadPastTheInput) {
    std::mt19937 random(1234);
    for (int round = 0; round < 20000; ++round) {
        Bytes bytes(random() % 12);
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
        // Steer a share of the inputs towards long-form and exactly fitting short-form lengths.
        if (bytes.size() >= 2 && round % 3 == 0)
            bytes[1] = static_cast<std::uint8_t>(0x80 | (random() % 4));
        if (bytes.size() >= 2 && round % 3 == 1)
            bytes[1] = static_cast<std::uint8_t>(bytes.size() - 2);
        // A record fills the input, so its content is the input's tail.
        const auto record = parseRecord(bytes);
        if (round % 3 == 1 && bytes.size() >= 2) {
            EXPECT_TRUE(record);
        }
        if (record) {
            EXPECT_EQ(record->tag(), bytes[0]);
            EXPECT_TRUE(
                std::equal(record->bytes().rbegin(), record->bytes().rend(), bytes.rbegin()));
            EXPECT_LT(record->bytes().size(), bytes.size());
        }
    }
}

}  // namespace
}  // namespace keyloft::der
