#include "keys/stored_key_codec.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "keyloft/error.hpp"
#include "platform/plist/binary_plist.hpp"
#include "support/temporary_folder.hpp"

// Recording stand-ins for the system log: linked instead of the real ones, so that the decoder's
// diagnostic lines can be checked.
namespace keyloft::platform {
std::vector<std::string> loggedErrors;
std::vector<std::string> loggedDebug;
void logError(std::string_view message) {
    loggedErrors.emplace_back(message);
}
void logDebug(std::string_view message) {
    loggedDebug.emplace_back(message);
}
}  // namespace keyloft::platform

namespace keyloft::keys {
namespace {

using platform::PlistArray;
using platform::PlistDictionary;
using platform::PlistValue;

Bytes hashOf(std::uint8_t fill) {
    return Bytes(20, fill);
}

BastionKey bastionKey(std::uint8_t fill, BiometryProtection protection) {
    return {hashOf(fill), Bytes{0xB0, fill, 0x00, 0xFF}, protection};
}

SealedKey sealedKey(std::uint8_t fill, std::string keyType, BiometryProtection protection) {
    return {hashOf(fill), std::move(keyType), Bytes(97, fill), Bytes{0x5E, fill}, protection};
}

StoredKeyMap mixedMap() {
    return {
        {hashOf(1), {.bastionKey = bastionKey(1, BiometryProtection::off)}},
        {hashOf(2), {.bastionKey = bastionKey(2, BiometryProtection::on)}},
        {hashOf(3), {.sealedKey = sealedKey(3, "ec", BiometryProtection::off)}},
        {hashOf(4), {.sealedKey = sealedKey(4, "rsa", BiometryProtection::on)}},
    };
}

// Trees for hand-made configuration data.
PlistValue bastionKeyTree(std::uint8_t fill, std::string protection = "off") {
    return {PlistDictionary{{"pubKeyHash", {hashOf(fill)}},
                            {"keyData", {Bytes{fill}}},
                            {"biometryProtection", {std::move(protection)}}}};
}

PlistValue storageTree(std::string kind, PlistValue record) {
    return {PlistDictionary{{std::move(kind), std::move(record)}}};
}

PlistValue rootTree(std::int64_t version, PlistValue keys) {
    return {PlistDictionary{{"version", {version}}, {"keys", std::move(keys)}}};
}

PlistValue pairs(std::initializer_list<PlistValue> elements) {
    return {PlistArray(elements)};
}

class StoredKeyCodec : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::loggedErrors.clear();
        platform::loggedDebug.clear();
    }
};

TEST_F(StoredKeyCodec, RoundTripKeepsEveryRecordKindAndProtection) {
    StoredKeyMap withEmptyStorage = mixedMap();
    withEmptyStorage.emplace(hashOf(5), KeyStorage{});
    for (const StoredKeyMap& map : {StoredKeyMap{}, mixedMap(), withEmptyStorage}) {
        EXPECT_EQ(decodeStoredKeys(encodeStoredKeys(map)), map);
    }
    EXPECT_TRUE(platform::loggedErrors.empty());
}

TEST_F(StoredKeyCodec, NoDataIsAnEmptyMapWithoutLogging) {
    EXPECT_TRUE(decodeStoredKeys(std::nullopt).empty());
    EXPECT_TRUE(platform::loggedErrors.empty());
    EXPECT_TRUE(platform::loggedDebug.empty());
}

// What a standard reader sees in our bytes: the header, then each value as [type, content], with
// dictionaries as [key, value] lists in file order and data as hex.
std::string readWithPlistlib(const Bytes& encoded) {
    const testing::TemporaryFolder folder;
    const auto dataPath = folder.path() / "data.plist";
    std::ofstream(dataPath, std::ios::binary)
        .write(reinterpret_cast<const char*>(encoded.data()), static_cast<long>(encoded.size()));
    const auto scriptPath = folder.path() / "read.py";
    std::ofstream(scriptPath) << R"(import json, plistlib, sys
data = open(sys.argv[1], 'rb').read()
def show(v):
    if isinstance(v, bool): return ['bool', v]
    if isinstance(v, int): return ['int', v]
    if isinstance(v, bytes): return ['data', v.hex()]
    if isinstance(v, str): return ['string', v]
    if isinstance(v, list): return ['array', [show(x) for x in v]]
    if isinstance(v, dict): return ['dict', [[k, show(x)] for k, x in v.items()]]
    return ['other', repr(v)]
print(data[:8].decode('latin-1'), json.dumps(show(plistlib.loads(data, fmt=plistlib.FMT_BINARY)), separators=(',', ':')), end='')
)";
    const std::string command = "/usr/bin/python3 " + scriptPath.string() + " " + dataPath.string();
    std::unique_ptr<FILE, decltype(&pclose)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) return "popen failed";
    std::string output;
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0;)
        output.append(buffer, n);
    return output;
}

TEST_F(StoredKeyCodec, StandardReaderSeesTheStoredLayout) {
    const StoredKeyMap map{
        {Bytes{0xAA, 0x01},
         {.bastionKey = BastionKey{{0xAA, 0x01}, {0x0B, 0xD0}, BiometryProtection::on}}},
        {Bytes{0xBB, 0x02},
         {.sealedKey =
              SealedKey{{0xBB, 0x02}, "ec", {0x01, 0x02, 0x03}, {0xEE}, BiometryProtection::off}}},
    };
    EXPECT_EQ(readWithPlistlib(encodeStoredKeys(map)),
              R"(bplist00 ["dict",[["version",["int",1]],["keys",["array",[)"
              R"(["data","aa01"],["dict",[["bastionKey",["dict",[)"
              R"(["pubKeyHash",["data","aa01"]],["keyData",["data","0bd0"]],)"
              R"(["biometryProtection",["string","on"]]]]]]],)"
              R"(["data","bb02"],["dict",[["sealedKey",["dict",[)"
              R"(["pubKeyHash",["data","bb02"]],["keyType",["string","ec"]],)"
              R"(["wrappedPrivateKey",["data","010203"]],["wrappingPrivateKeyData",["data","ee"]],)"
              R"(["biometryProtection",["string","off"]]]]]]]]]]]])");
    EXPECT_EQ(readWithPlistlib(encodeStoredKeys({})),
              R"(bplist00 ["dict",[["version",["int",1]],["keys",["array",[]]]]])");
}

struct BadData {
    const char* name;
    Bytes data;
    KeyloftError::Case expected;
    const char* logLine;
};

Bytes encoded(const PlistValue& tree) {
    return platform::toBinary(tree);
}

std::vector<BadData> badData() {
    using enum KeyloftError::Case;
    const PlistValue validPair = pairs({{hashOf(1)}, storageTree("bastionKey", bastionKeyTree(1))});
    return {
        {"NotAPropertyList", bytesOf("version=1"), decodeDataFailed,
         "Failed to decode data: data is not a binary property list"},
        {"RootIsAnArray", encoded(pairs({})), decodeDataFailed,
         "Failed to decode data: root: expected dictionary, found array"},
        {"VersionMissing", encoded({PlistDictionary{{"keys", pairs({})}}}), decodeDataFailed,
         "Failed to decode data: version: missing"},
        {"VersionIsText", encoded({PlistDictionary{{"version", {std::string("1")}}}}),
         decodeDataFailed, "Failed to decode data: version: expected integer, found string"},
        {"KeysIsADictionary", encoded(rootTree(1, {PlistDictionary{}})), decodeDataFailed,
         "Failed to decode data: keys: expected array, found dictionary"},
        {"OddPairList",
         encoded(rootTree(
             1, pairs({{hashOf(1)}, storageTree("bastionKey", bastionKeyTree(1)), {hashOf(2)}}))),
         decodeDataFailed, "Failed to decode data: keys: odd number of elements (3)"},
        {"HashIsText", encoded(rootTree(1, pairs({{std::string("hash")}, {PlistDictionary{}}}))),
         decodeDataFailed, "Failed to decode data: keys[0]: expected data, found string"},
        {"StorageIsData", encoded(rootTree(1, pairs({{hashOf(1)}, {Bytes{}}}))), decodeDataFailed,
         "Failed to decode data: keys[1]: expected dictionary, found data"},
        {"RecordMissesKeyData",
         encoded(rootTree(
             1, pairs({{hashOf(1)},
                       storageTree("bastionKey", {PlistDictionary{{"pubKeyHash", {hashOf(1)}},
                                                                  {"biometryProtection",
                                                                   {std::string("off")}}}})}))),
         decodeDataFailed, "Failed to decode data: keys[1].bastionKey.keyData: missing"},
        {"SealedKeyTypeIsData",
         encoded(rootTree(
             1,
             pairs({{hashOf(1)},
                    storageTree("sealedKey",
                                {PlistDictionary{{"pubKeyHash", {hashOf(1)}},
                                                 {"keyType", {Bytes{0x65, 0x63}}},
                                                 {"wrappedPrivateKey", {Bytes{1}}},
                                                 {"wrappingPrivateKeyData", {Bytes{2}}},
                                                 {"biometryProtection", {std::string("on")}}}})}))),
         decodeDataFailed,
         "Failed to decode data: keys[1].sealedKey.keyType: expected string, found data"},
        {"ProtectionIsTheCommandLineWord",
         encoded(rootTree(
             1, pairs({{hashOf(1)}, storageTree("bastionKey", bastionKeyTree(1, "bio"))}))),
         decodeDataFailed,
         "Failed to decode data: keys[1].bastionKey.biometryProtection: unknown value \"bio\""},
        {"OtherVersion", encoded(rootTree(2, validPair)), dataVersionMismatch,
         "Ignoring decoded data with different version: 2"},
        {"NegativeVersion", encoded(rootTree(-1, validPair)), dataVersionMismatch,
         "Ignoring decoded data with different version: -1"},
        {"OtherVersionWithBrokenKeys", encoded(rootTree(2, pairs({{hashOf(1)}}))), decodeDataFailed,
         "Failed to decode data: keys: odd number of elements (1)"},
    };
}

class StoredKeyCodecFailure : public StoredKeyCodec,
                              public ::testing::WithParamInterface<BadData> {};

TEST_P(StoredKeyCodecFailure, ThrowsTheCaseAndLogsOneLine) {
    const BadData& bad = GetParam();
    try {
        decodeStoredKeys(bad.data);
        FAIL() << "decoded without error";
    } catch (const KeyloftError& error) {
        EXPECT_EQ(error.errorCase(), bad.expected);
    }
    const bool versionCase = bad.expected == KeyloftError::Case::dataVersionMismatch;
    EXPECT_EQ(platform::loggedErrors,
              versionCase ? std::vector<std::string>{} : std::vector<std::string>{bad.logLine});
    EXPECT_EQ(platform::loggedDebug,
              versionCase ? std::vector<std::string>{bad.logLine} : std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Cases, StoredKeyCodecFailure, ::testing::ValuesIn(badData()),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

TEST_F(StoredKeyCodec, LaterPairWithTheSameHashWins) {
    const auto data =
        encoded(rootTree(1, pairs({{hashOf(7)},
                                   storageTree("bastionKey", bastionKeyTree(7, "off")),
                                   {hashOf(7)},
                                   storageTree("bastionKey", bastionKeyTree(7, "on"))})));
    const StoredKeyMap keys = decodeStoredKeys(data);
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_EQ(keys.at(hashOf(7)).bastionKey->biometryProtection, BiometryProtection::on);
}

TEST_F(StoredKeyCodec, ToleratesWhatTheToolNeverWrites) {
    // Unknown keys at every level, a storage with neither record, and a record without "keys".
    PlistValue record = bastionKeyTree(1);
    std::get<PlistDictionary>(record.value).emplace_back("note", PlistValue{std::string("x")});
    const PlistValue root{PlistDictionary{
        {"version", {std::int64_t{1}}},
        {"keys", pairs({{hashOf(1)},
                        {PlistDictionary{{"bastionKey", record}, {"future", {std::int64_t{9}}}}},
                        {hashOf(2)},
                        {PlistDictionary{{"future", {Bytes{}}}}}})},
        {"extra", {PlistArray{}}},
    }};
    const StoredKeyMap keys = decodeStoredKeys(encoded(root));
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys.at(hashOf(1)).bastionKey,
              (BastionKey{hashOf(1), Bytes{1}, BiometryProtection::off}));
    EXPECT_EQ(keys.at(hashOf(2)), KeyStorage{});

    EXPECT_TRUE(
        decodeStoredKeys(encoded({PlistDictionary{{"version", {std::int64_t{1}}}}})).empty());
    EXPECT_TRUE(platform::loggedErrors.empty());
}

TEST(BiometryProtectionRaw, OnlyTheStoredSpellingsParse) {
    for (const auto protection : {BiometryProtection::off, BiometryProtection::on}) {
        EXPECT_EQ(biometryProtectionFromRaw(rawValue(protection)), protection);
    }
    for (const char* raw : {"bio", "none", "On", "", "off "}) {
        EXPECT_EQ(biometryProtectionFromRaw(raw), std::nullopt) << raw;
    }
}

}  // namespace
}  // namespace keyloft::keys
