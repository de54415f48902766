#pragma once

// Drives the module through its C interface against a card in a private data folder, filled by
// the tool's own commands.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "keyloft/bytes.hpp"
#include "keyloft/entry.hpp"
#include "pkcs11/cryptoki.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::testing {

// One data folder per process: the key processor keeps the folder it first saw.
inline const std::filesystem::path& cardHome() {
    static const TemporaryFolder folder;
    static const bool set = [] {
        ::setenv("HOME", folder.path().c_str(), 1);
        ::setenv("XDG_DATA_HOME", (folder.path() / "data").c_str(), 1);
        return true;
    }();
    (void)set;
    return folder.path();
}

inline void runTool(std::vector<std::string> words) {
    cardHome();
    words.insert(words.begin(), "keyloft");
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    runEntry(static_cast<int>(words.size()), argv.data());
}

inline void createIdentity(const std::string& label, const std::string& keyType = "p-256") {
    runTool({"create-identity", "-l", label, "-k", keyType, "-CN", label});
}

inline CK_FUNCTION_LIST& module() {
    CK_FUNCTION_LIST* list = nullptr;
    EXPECT_EQ(C_GetFunctionList(&list), CKR_OK);
    return *list;
}

inline CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const void* value, CK_ULONG size) {
    return {type, const_cast<void*>(value), size};
}

// An initialised module with one open session.
class CardSession : public ::testing::Test {
  protected:
    void SetUp() override {
        cardHome();
        ASSERT_EQ(p11.C_Initialize(nullptr), CKR_OK);
        ASSERT_EQ(p11.C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    }
    void TearDown() override { EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK); }

    std::vector<CK_OBJECT_HANDLE> find(std::vector<CK_ATTRIBUTE> searchTemplate) const {
        EXPECT_EQ(p11.C_FindObjectsInit(session, searchTemplate.data(), searchTemplate.size()),
                  CKR_OK);
        std::vector<CK_OBJECT_HANDLE> found(64);
        CK_ULONG count = 0;
        EXPECT_EQ(p11.C_FindObjects(session, found.data(), found.size(), &count), CKR_OK);
        EXPECT_EQ(p11.C_FindObjectsFinal(session), CKR_OK);
        found.resize(count);
        return found;
    }
    // The object of the class with the label; fails the test unless there is exactly one.
    CK_OBJECT_HANDLE object(CK_OBJECT_CLASS objectClass, const std::string& label) const {
        const auto found = find({attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                                 attribute(CKA_LABEL, label.data(), label.size())});
        EXPECT_EQ(found.size(), 1U) << label;
        return found.empty() ? CK_INVALID_HANDLE : found[0];
    }
    Bytes value(CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE type) const {
        CK_ATTRIBUTE request{type, nullptr, 0};
        EXPECT_EQ(p11.C_GetAttributeValue(session, handle, &request, 1), CKR_OK);
        Bytes out(request.ulValueLen);
        request.pValue = out.data();
        EXPECT_EQ(p11.C_GetAttributeValue(session, handle, &request, 1), CKR_OK);
        return out;
    }
    Bytes sign(CK_OBJECT_HANDLE key, CK_MECHANISM mechanism, ByteView data) const {
        EXPECT_EQ(p11.C_SignInit(session, &mechanism, key), CKR_OK);
        CK_ULONG size = 0;
        auto* input = const_cast<CK_BYTE*>(data.data());
        EXPECT_EQ(p11.C_Sign(session, input, data.size(), nullptr, &size), CKR_OK);
        Bytes signature(size);
        EXPECT_EQ(p11.C_Sign(session, input, data.size(), signature.data(), &size), CKR_OK);
        signature.resize(size);
        return signature;
    }

    CK_FUNCTION_LIST& p11 = module();
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
};

}  // namespace keyloft::testing
