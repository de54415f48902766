#pragma once

// Drives the module through its C interface against a card in a private data folder, filled by
// the tool's own commands.

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "base/bytes.hpp"
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

// Runs the built tool on the slot; it must succeed, printing nothing.
inline void runTool(std::vector<std::string> words) {
    cardHome();
    words.insert(words.begin(), KEYLOFT_TOOL);
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    pid_t child = 0;
    const int spawned = posix_spawn(&child, KEYLOFT_TOOL, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeEnds[1]);
    std::string output;
    char buffer[256];
    for (ssize_t got; (got = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
        output.append(buffer, static_cast<std::size_t>(got));
    ::close(pipeEnds[0]);
    ASSERT_EQ(spawned, 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(output, "");
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
