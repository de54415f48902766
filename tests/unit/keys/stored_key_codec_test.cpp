#include "keys/stored_key_codec.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "base/error.hpp"
#include "support/plist_tree.hpp"
#include "support/temporary_folder.hpp"

// Recording stand-ins for the system log, linked instead of the real ones.
namespace keyloft::platform::os {
std::vector<std::string> loggedErrors;
std::vector<std::string> loggedDebug;
void logError(std::string_view message) {
    loggedErrors.emplace_back(message);
}
void logDebug(std::string_view message) {
    loggedDebug.emplace_back(message);
}
}  // namespace keyloft::platform::os

namespace keyloft::keys {
namespace {

using testing::PlistArray;
using testing::PlistDictionary;
using testing::PlistValue;
using testing::toBinary;
using Case = KeyloftError::Case;

Bytes hashOf(std::uint8_t fill) {
    return Bytes(20, fill);
}

PlistValue boundStorage(std::uint8_t fill, std::string protection = "off",
                        bool withKeyData = true) {
    PlistDictionary record{{"pubKeyHash", {hashOf(fill)}},
                           {"biometryProtection", {std::move(protection)}}};
    if (withKeyData) record.emplace_back("keyData", PlistValue{Bytes{fill}});
    return {PlistDictionary{{"bastionKey", {std::move(record)}}}};
}

Bytes rootWith(PlistValue version, PlistArray keys) {
    return toBinary(
        {PlistDictionary{{"version", std::move(version)}, {"keys", {std::move(keys)}}}});
}

class StoredKeyCodec : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::os::loggedErrors.clear();
        platform::os::loggedDebug.clear();
    }
};

TEST_F(StoredKeyCodec, RoundTripKeepsEveryRecordKindAndProtection) {
    const StoredKeyMap mixed{
        {hashOf(1), {.boundKey = BoundKey{hashOf(1), {0xB0, 0x01}, BiometryProtection::off}}},
        {hashOf(2), {.boundKey = BoundKey{hashOf(2), {0xB0, 0x02}, BiometryProtection::on}}},
        {hashOf(3),
         {.sealedKey = SealedKey{hashOf(3), "ec", Bytes(97, 3), {0x5E}, BiometryProtection::off}}},
        {hashOf(4),
         {.sealedKey = SealedKey{hashOf(4), "rsa", Bytes(9, 4), {0x5E}, BiometryProtection::on}}},
        {hashOf(5), {}},
    };
    for (const StoredKeyMap& map : {StoredKeyMap{}, mixed})
        EXPECT_EQ(decodeStoredKeys(encodeStoredKeys(map)), map);
    EXPECT_TRUE(decodeStoredKeys(std::nullopt).empty());
    EXPECT_TRUE(platform::os::loggedErrors.empty());
}

// Our bytes as Python's plistlib reads them: header, then [type, content] with dictionaries as
// [key, value] lists in file order and data as hex.
std::string readWithPlistlib(const Bytes& encoded) {
    const testing::TemporaryFolder folder;
    std::ofstream(folder.path() / "data", std::ios::binary)
        .write(reinterpret_cast<const char*>(encoded.data()), static_cast<long>(encoded.size()));
    std::ofstream(folder.path() / "read.py") << R"(import json, plistlib, sys
data = open(sys.argv[1], 'rb').read()
def show(v):
    for kind, t in (('bool', bool), ('int', int), ('data', bytes), ('string', str)):
        if isinstance(v, t): return [kind, v.hex() if t is bytes else v]
    if isinstance(v, list): return ['array', [show(x) for x in v]]
    return ['dict', [[k, show(x)] for k, x in v.items()]]
print(data[:8].decode('latin-1'), json.dumps(show(plistlib.loads(data, fmt=plistlib.FMT_BINARY)), separators=(',', ':')), end='')
)";
    const std::string command = "/usr/bin/python3 " + (folder.path() / "read.py").string() + " " +
                                (folder.path() / "data").string();
    std::unique_ptr<FILE, decltype(&pclose)> pipe(popen(command.c_str(), "r"), pclose);
    std::string output;
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0;)
        output.append(buffer, n);
    return output;
}

TEST_F(StoredKeyCodec, StandardReaderSeesTheStoredLayout) {
    const StoredKeyMap map{
        {{0xAA}, {.boundKey = BoundKey{{0xAA}, {0x0B, 0xD0}, BiometryProtection::on}}},
        {{0xBB},
         {.sealedKey = SealedKey{{0xBB}, "ec", {0x01, 0x02}, {0xEE}, BiometryProtection::off}}},
    };
    EXPECT_EQ(
        readWithPlistlib(encodeStoredKeys(map)),
        R"(bplist00 ["dict",[["version",["int",1]],["keys",["array",[["data","aa"],)"
        R"(["dict",[["bastionKey",["dict",[["pubKeyHash",["data","aa"]],["keyData",["data","0bd0"]],)"
        R"(["biometryProtection",["string","on"]]]]]]],["data","bb"],["dict",[["sealedKey",["dict",[)"
        R"(["pubKeyHash",["data","bb"]],["keyType",["string","ec"]],["wrappedPrivateKey",["data","0102"]],)"
        R"(["wrappingPrivateKeyData",["data","ee"]],["biometryProtection",["string","off"]]]]]]]]]]]])");
}

KeyStorage sealedStorage(std::uint8_t fill) {
    return {.sealedKey = SealedKey{hashOf(fill), "ec", Bytes(178, fill), Bytes(80, fill),
                                   BiometryProtection::off}};
}

TEST_F(StoredKeyCodec, RecordsAreAddedInPlaceUntilTheRoomIsUsedUp) {
    StoredKeyMap expected{{hashOf(1), sealedStorage(1)}, {hashOf(2), {}}};
    Bytes data = encodeStoredKeys(expected);
    const std::size_t size = data.size();
    // One record at a time, as create-identity adds them, and every third time three at once.
    for (std::uint8_t fill = 3; fill < 200; fill += 3) {
        StoredKeyMap more{{hashOf(fill), sealedStorage(fill)}};
        if (fill % 9 == 0) {
            more.emplace(hashOf(fill + 1),
                         KeyStorage{.boundKey = BoundKey{hashOf(fill + 1), Bytes(240, fill),
                                                         BiometryProtection::on}});
            more.emplace(hashOf(fill + 2), sealedStorage(fill + 2));
        }
        const auto patches = appendStoredKeys(data, more);
        if (!patches) break;
        applyPatches(data, *patches);
        expected.merge(more);
        ASSERT_EQ(decodeStoredKeys(data), expected) << expected.size();
    }
    EXPECT_EQ(data.size(), size);
    EXPECT_GE(expected.size(), 2U + 32U);
    EXPECT_LT(expected.size(), 100U);
    EXPECT_TRUE(platform::os::loggedErrors.empty());
    // Written again whole, the data has room again; data of another layout is written whole.
    const StoredKeyMap one{{hashOf(0xFF), sealedStorage(0xFF)}};
    EXPECT_TRUE(appendStoredKeys(encodeStoredKeys(expected), one));
    EXPECT_FALSE(
        appendStoredKeys(rootWith({std::int64_t{1}}, {{hashOf(1)}, boundStorage(1)}), one));
}

TEST_F(StoredKeyCodec, StandardReaderSeesRecordsAddedInPlace) {
    const StoredKeyMap first{{{0xAA}, {.sealedKey = SealedKey{{0xAA}, "ec", {0x01}, {0xEE}}}}};
    const StoredKeyMap second{
        {{0xBB}, {.boundKey = BoundKey{{0xBB}, {0x0B}, BiometryProtection::on}}}};
    Bytes data = encodeStoredKeys(first);
    applyPatches(data, *appendStoredKeys(data, second));
    EXPECT_EQ(
        readWithPlistlib(data),
        R"(bplist00 ["dict",[["version",["int",1]],["keys",["array",[["data","aa"],)"
        R"(["dict",[["sealedKey",["dict",[["pubKeyHash",["data","aa"]],["keyType",["string","ec"]],)"
        R"(["wrappedPrivateKey",["data","01"]],["wrappingPrivateKeyData",["data","ee"]],)"
        R"(["biometryProtection",["string","off"]]]]]]],["data","bb"],["dict",[["bastionKey",)"
        R"(["dict",[["pubKeyHash",["data","bb"]],["keyData",["data","0b"]],)"
        R"(["biometryProtection",["string","on"]]]]]]]]]]]])");
}

struct BadData {
    const char* name;
    Bytes data;
    Case expected;
    const char* logLine;
};

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
    const std::vector<std::string> line{bad.logLine};
    const bool versionCase = bad.expected == Case::dataVersionMismatch;
    EXPECT_EQ(platform::os::loggedErrors, versionCase ? std::vector<std::string>{} : line);
    EXPECT_EQ(platform::os::loggedDebug, versionCase ? line : std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StoredKeyCodecFailure,
    ::testing::Values(
        BadData{"NotAPropertyList", bytesOf("version=1"), Case::decodeDataFailed,
                "Failed to decode data: data is not a binary property list"},
        BadData{"RootIsAnArray", toBinary({PlistArray{}}), Case::decodeDataFailed,
                "Failed to decode data: root: expected dictionary, found array"},
        BadData{"VersionIsText", rootWith({std::string("1")}, {}), Case::decodeDataFailed,
                "Failed to decode data: version: expected integer, found string"},
        BadData{"OddPairList",
                rootWith({std::int64_t{1}}, {{hashOf(1)}, boundStorage(1), {hashOf(2)}}),
                Case::decodeDataFailed, "Failed to decode data: keys: odd number of elements (3)"},
        BadData{"HashIsText", rootWith({std::int64_t{1}}, {{std::string("h")}, boundStorage(1)}),
                Case::decodeDataFailed,
                "Failed to decode data: keys[0]: expected data, found string"},
        BadData{"RecordMissesKeyData",
                rootWith({std::int64_t{1}}, {{hashOf(1)}, boundStorage(1, "off", false)}),
                Case::decodeDataFailed,
                "Failed to decode data: keys[1].bastionKey.keyData: missing"},
        BadData{
            "ProtectionIsTheCommandLineWord",
            rootWith({std::int64_t{1}}, {{hashOf(1)}, boundStorage(1, "bio")}),
            Case::decodeDataFailed,
            "Failed to decode data: keys[1].bastionKey.biometryProtection: unknown value \"bio\""},
        BadData{"OtherVersion", rootWith({std::int64_t{2}}, {{hashOf(1)}, boundStorage(1)}),
                Case::dataVersionMismatch, "Ignoring decoded data with different version: 2"},
        BadData{"OtherVersionWithBrokenKeys", rootWith({std::int64_t{2}}, {{hashOf(1)}}),
                Case::decodeDataFailed, "Failed to decode data: keys: odd number of elements (1)"}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

TEST_F(StoredKeyCodec, ToleratesWhatTheToolNeverWrites) {
    // A repeated hash (the later pair wins), unknown keys, a storage with neither record.
    PlistValue annotated = boundStorage(1, "on");
    std::get<PlistDictionary>(annotated.value).emplace_back("future", PlistValue{std::int64_t{9}});
    const Bytes data = toBinary({PlistDictionary{
        {"version", {std::int64_t{1}}},
        {"keys",
         {PlistArray{{hashOf(1)},
                     boundStorage(1),
                     {hashOf(1)},
                     annotated,
                     {hashOf(2)},
                     {PlistDictionary{{"other", {Bytes{}}}}}}}},
        {"extra", {PlistArray{}}},
    }});
    EXPECT_EQ(
        decodeStoredKeys(data),
        (StoredKeyMap{{hashOf(1), {.boundKey = BoundKey{hashOf(1), {1}, BiometryProtection::on}}},
                      {hashOf(2), {}}}));
    // A record without "keys" holds none.
    EXPECT_TRUE(
        decodeStoredKeys(toBinary({PlistDictionary{{"version", {std::int64_t{1}}}}})).empty());
    EXPECT_TRUE(platform::os::loggedErrors.empty());
}

// The module serves each identity on its own: a damaged or empty record costs only its own key.
TEST_F(StoredKeyCodec, UsableRecordsLeaveOutOnlyTheDamagedOnes) {
    const Bytes data = rootWith({std::int64_t{1}}, {{hashOf(1)},
                                                    boundStorage(1, "off", false),
                                                    {std::string("h")},
                                                    boundStorage(2),
                                                    {hashOf(3)},
                                                    {PlistDictionary{}},
                                                    {hashOf(4)},
                                                    boundStorage(4)});
    const auto usable = decodeUsableStoredKeys(data);
    ASSERT_EQ(usable.size(), 1U);
    EXPECT_TRUE(usable.contains(hashOf(4)));
    EXPECT_EQ(platform::os::loggedErrors.size(), 2U);
    EXPECT_THROW(decodeUsableStoredKeys(bytesOf("version=1")), KeyloftError);
}

}  // namespace
}  // namespace keyloft::keys
