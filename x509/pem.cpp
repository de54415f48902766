#include "x509/pem.hpp"

#include <array>
#include <vector>

#include "encoding/base64.hpp"

namespace keyloft::x509 {
namespace {

constexpr std::string_view beginCertificate = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view endCertificate = "-----END CERTIFICATE-----";
constexpr std::size_t pemLineLength = 64;

// Length of the line break starting at the position, or 0.
std::size_t lineBreakAt(std::string_view text, std::size_t i) {
    constexpr std::array<std::string_view, 8> breaks{
        "\r\n", "\n", "\r", "\v", "\f", "\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"};
    for (const auto candidate : breaks) {
        if (text.substr(i, candidate.size()) == candidate) return candidate.size();
    }
    return 0;
}

std::vector<std::string_view> nonEmptyLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (const auto length = lineBreakAt(text, i)) {
            if (i > start) lines.push_back(text.substr(start, i - start));
            i += length;
            start = i;
        } else {
            ++i;
        }
    }
    if (start < text.size()) lines.push_back(text.substr(start));
    return lines;
}

}  // namespace

std::optional<Bytes> certificateFromPem(std::string_view text) {
    std::string joined;
    for (const auto line : nonEmptyLines(text)) {
        if (line.find(beginCertificate) != line.npos || line.find(endCertificate) != line.npos)
            continue;
        joined += line;
    }
    return encoding::base64Decode(joined);
}

std::string pemText(std::string_view label, ByteView der) {
    const std::string body = encoding::base64Encode(der);
    std::string text = "-----BEGIN " + std::string(label) + "-----\n";
    for (std::size_t i = 0; i < body.size(); i += pemLineLength) {
        text += body.substr(i, pemLineLength);
        text += '\n';
    }
    text += "-----END " + std::string(label) + "-----\n";
    return text;
}

}  // namespace keyloft::x509
