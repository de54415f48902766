#include "x509/pem.hpp"

#include <gtest/gtest.h>

#include <numeric>

namespace keyloft::x509 {
namespace {

Bytes sequentialBytes(std::size_t size) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const auto end = text.find('\n', start);
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

TEST(PemText, CutsTheBodyIntoLinesOfSixtyFour) {
    struct Case {
        std::size_t derSize;
        std::vector<std::size_t> bodyLines;
    };
    for (const auto& [derSize, bodyLines] : {Case{48, {64}}, Case{49, {64, 4}}, Case{1, {4}},
                                             Case{96, {64, 64}}, Case{97, {64, 64, 4}}}) {
        const auto text = pemText("CERTIFICATE REQUEST", sequentialBytes(derSize));
        ASSERT_TRUE(text.ends_with("\n-----END CERTIFICATE REQUEST-----\n")) << derSize;
        EXPECT_EQ(text.find('\r'), std::string::npos);
        const auto lines = linesOf(text);
        ASSERT_EQ(lines.size(), bodyLines.size() + 2) << derSize;
        EXPECT_EQ(lines.front(), "-----BEGIN CERTIFICATE REQUEST-----");
        for (std::size_t i = 0; i < bodyLines.size(); ++i)
            EXPECT_EQ(lines[i + 1].size(), bodyLines[i]) << derSize << " line " << i;
    }
}

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

class PemLineBreaks : public ::testing::TestWithParam<std::string> {};

TEST_P(PemLineBreaks, ReadAsTheSameCertificate) {
    const Bytes der = sequentialBytes(200);
    const auto text = replaceAll(pemText("CERTIFICATE", der), "\n", GetParam());
    EXPECT_EQ(certificateFromPem(text), der);
}

INSTANTIATE_TEST_SUITE_P(Breaks, PemLineBreaks,
                         ::testing::Values("\n", "\r\n", "\r", "\v", "\f", "\xC2\x85",
                                           "\xE2\x80\xA8", "\xE2\x80\xA9", "\n\n\r\n"));

TEST(CertificateFromPem, JoinsLinesOfAnyLength) {
    const Bytes der = sequentialBytes(100);
    const auto lines = linesOf(pemText("X", der));
    const auto base64 = std::accumulate(lines.begin() + 1, lines.end() - 1, std::string());
    EXPECT_EQ(certificateFromPem("-----BEGIN CERTIFICATE-----\n" + base64 +
                                 "\n-----END CERTIFICATE-----\n"),
              der);
    EXPECT_EQ(certificateFromPem(base64.substr(0, 10) + "\n" + base64.substr(10, 3) + "\n" +
                                 base64.substr(13)),
              der);
    // Marker lines are dropped whatever else they hold.
    EXPECT_EQ(certificateFromPem("junk -----BEGIN CERTIFICATE----- junk\n" + base64 +
                                 "\n-----END CERTIFICATE-----trailer"),
              der);
}

TEST(CertificateFromPem, RefusesTextThatIsNotBase64) {
    const auto text = pemText("CERTIFICATE", sequentialBytes(61));
    const auto body = linesOf(text)[1];
    for (const std::string& bad : {
             replaceAll(text, body, body.substr(0, 10) + " " + body.substr(10)),
             replaceAll(text, body, body.substr(0, 10) + "\t" + body.substr(10)),
             "Subject: Alice\n" + text,
             text + text,  // the padding of the first body ends up inside
             std::string("\x30\x82\x01\x00\x02\x01", 6),
         }) {
        EXPECT_FALSE(certificateFromPem(bad)) << bad;
    }
}

}  // namespace
}  // namespace keyloft::x509
