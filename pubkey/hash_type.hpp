#pragma once

#include <optional>
#include <string_view>

namespace keyloft {

// How the listing presents a public key: which hash, and in which text form.
enum class HashType { sha1, sha256, ssh };
enum class HashEncoding { hex, base64 };

std::string_view word(HashType type);
std::string_view word(HashEncoding encoding);
std::optional<HashType> hashTypeFromWord(std::string_view word);
std::optional<HashEncoding> hashEncodingFromWord(std::string_view word);

}  // namespace keyloft
