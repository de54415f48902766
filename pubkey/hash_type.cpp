#include "pubkey/hash_type.hpp"

#include "base/word_table.hpp"

namespace keyloft {
namespace {

constexpr WordTable<HashType, 3> hashTypeWords{{
    {HashType::sha1, "sha1"},
    {HashType::sha256, "sha256"},
    {HashType::ssh, "ssh"},
}};

constexpr WordTable<HashEncoding, 2> hashEncodingWords{{
    {HashEncoding::hex, "hex"},
    {HashEncoding::base64, "b64"},
}};

}  // namespace

std::string_view word(HashType type) {
    return wordIn(hashTypeWords, type);
}
std::string_view word(HashEncoding encoding) {
    return wordIn(hashEncodingWords, encoding);
}
std::optional<HashType> hashTypeFromWord(std::string_view word) {
    return valueIn(hashTypeWords, word);
}
std::optional<HashEncoding> hashEncodingFromWord(std::string_view word) {
    return valueIn(hashEncodingWords, word);
}

}  // namespace keyloft
