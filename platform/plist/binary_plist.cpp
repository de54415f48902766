#include "platform/plist/binary_plist.hpp"

#include <plist/plist.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string_view>
#include <type_traits>

#include "base/error.hpp"
#include "platform/plist/string_check.hpp"
#include "platform/plist/utf8_text.hpp"

namespace keyloft::platform::plist {
namespace {

struct NodeDeleter {
    void operator()(void* node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

// Iterators and dictionary keys handed out by libplist are released with free().
struct FreeDeleter {
    void operator()(void* memory) const {
        std::free(memory);  // NOLINT(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    }
};

struct BinaryDeleter {
    void operator()(char* buffer) const { plist_to_bin_free(buffer); }
};

// The stored layout is four levels deep; anything far deeper is not ours and would only cost stack.
constexpr int maxDepth = 64;

// Text that libplist writes back unchanged.
bool isWritableText(std::string_view text) {
    return text.find('\0') == std::string_view::npos && isUtf8(text);
}

std::string unsupportedTypeName(plist_type type) {
    switch (type) {
        case PLIST_BOOLEAN:
            return "boolean";
        case PLIST_REAL:
            return "real";
        case PLIST_DATE:
            return "date";
        case PLIST_UID:
            return "uid";
        default:
            return "unknown";
    }
}

PlistValue readNode(plist_t node, int depth);

PlistDictionary readDictionary(plist_t node, int depth) {
    plist_dict_iter rawIterator = nullptr;
    plist_dict_new_iter(node, &rawIterator);
    const std::unique_ptr<void, FreeDeleter> iterator(rawIterator);
    if (!iterator) throw PlatformError("cannot iterate a property-list dictionary");
    PlistDictionary dictionary;
    for (;;) {
        char* rawKey = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, iterator.get(), &rawKey, &child);
        const std::unique_ptr<char, FreeDeleter> key(rawKey);
        if (child == nullptr) break;
        if (!key) throw PlatformError("property-list dictionary entry without a key");
        if (!isUtf8(key.get())) throw PlatformError("property-list key is not valid UTF-8");
        PlistValue value = readNode(child, depth + 1);
        // A key written twice keeps its later value, so that a key occurs once in the tree.
        const auto existing =
            std::find_if(dictionary.begin(), dictionary.end(),
                         [&](const auto& entry) { return entry.first == key.get(); });
        if (existing != dictionary.end()) {
            existing->second = std::move(value);
        } else {
            dictionary.emplace_back(key.get(), std::move(value));
        }
    }
    return dictionary;
}

PlistArray readArray(plist_t node, int depth) {
    const std::uint32_t size = plist_array_get_size(node);
    PlistArray array;
    array.reserve(size);
    // Walk with an iterator: indexing a parsed array costs a walk from its start each time.
    plist_array_iter rawIterator = nullptr;
    plist_array_new_iter(node, &rawIterator);
    const std::unique_ptr<void, FreeDeleter> iterator(rawIterator);
    if (!iterator) throw PlatformError("cannot iterate a property-list array");
    for (std::uint32_t i = 0; i < size; ++i) {
        plist_t child = nullptr;
        plist_array_next_item(node, iterator.get(), &child);
        if (child == nullptr) throw PlatformError("property-list array with a missing element");
        array.push_back(readNode(child, depth + 1));
    }
    return array;
}

PlistValue readNode(plist_t node, int depth) {
    if (depth > maxDepth) throw PlatformError("property list is nested too deeply");
    const plist_type type = plist_get_node_type(node);
    switch (type) {
        case PLIST_DICT:
            return {readDictionary(node, depth)};
        case PLIST_ARRAY:
            return {readArray(node, depth)};
        case PLIST_DATA: {
            std::uint64_t length = 0;
            const auto* data =
                reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
            if (data == nullptr) return {Bytes{}};
            return {Bytes(data, data + length)};
        }
        case PLIST_STRING: {
            std::uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            if (text == nullptr) return {std::string{}};
            std::string content(text, length);
            if (!isUtf8(content)) throw PlatformError("property-list string is not valid UTF-8");
            return {std::move(content)};
        }
        case PLIST_UINT: {
            // Binary property lists store signed 64-bit integers; libplist hands them out unsigned.
            std::uint64_t raw = 0;
            plist_get_uint_val(node, &raw);
            return {static_cast<std::int64_t>(raw)};
        }
        default:
            return {PlistUnsupported{unsupportedTypeName(type)}};
    }
}

Node makeNode(const PlistValue& value);

Node makeDictionary(const PlistDictionary& dictionary) {
    Node node(plist_new_dict());
    for (const auto& [key, child] : dictionary) {
        if (!isWritableText(key)) {
            throw PlatformError(
                "cannot write a property-list key that is not UTF-8 text without NUL "
                "characters");
        }
        Node childNode = makeNode(child);
        // The dictionary takes ownership of the child.
        plist_dict_set_item(node.get(), key.c_str(), childNode.release());
    }
    return node;
}

Node makeArray(const PlistArray& array) {
    Node node(plist_new_array());
    for (const auto& child : array) {
        Node childNode = makeNode(child);
        plist_array_append_item(node.get(), childNode.release());
    }
    return node;
}

Node makeNode(const PlistValue& value) {
    return std::visit(
        [](const auto& content) -> Node {
            using T = std::decay_t<decltype(content)>;
            if constexpr (std::is_same_v<T, PlistDictionary>) {
                return makeDictionary(content);
            } else if constexpr (std::is_same_v<T, PlistArray>) {
                return makeArray(content);
            } else if constexpr (std::is_same_v<T, Bytes>) {
                return Node(
                    plist_new_data(reinterpret_cast<const char*>(content.data()), content.size()));
            } else if constexpr (std::is_same_v<T, std::string>) {
                if (!isWritableText(content)) {
                    throw PlatformError(
                        "cannot write a property-list string that is not UTF-8 text "
                        "without NUL characters");
                }
                return Node(plist_new_string(content.c_str()));
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                return Node(plist_new_uint(static_cast<std::uint64_t>(content)));
            } else {
                throw PlatformError("cannot write a property-list " + content.typeName + " value");
            }
        },
        value.value);
}

}  // namespace

PlistValue fromBinary(ByteView bytes) {
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw PlatformError("property list is too large");
    }
    checkBinaryPlistStrings(bytes);
    plist_t rawRoot = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::uint32_t>(bytes.size()), &rawRoot);
    const Node root(rawRoot);
    if (!root) throw PlatformError("data is not a binary property list");
    return readNode(root.get(), 0);
}

Bytes toBinary(const PlistValue& value) {
    const Node root = makeNode(value);
    char* rawBuffer = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root.get(), &rawBuffer, &length);
    const std::unique_ptr<char, BinaryDeleter> buffer(rawBuffer);
    if (!buffer) throw PlatformError("cannot write the binary property list");
    const auto* begin = reinterpret_cast<const std::uint8_t*>(buffer.get());
    return Bytes(begin, begin + length);
}

}  // namespace keyloft::platform::plist
