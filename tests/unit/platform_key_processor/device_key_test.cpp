#include "platform/key_processor/device_key.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "base/error.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::platform::key_processor {
namespace {

using crypto::SecretBytes;

TEST(DeviceKey, MadeOnceWithOwnerOnlyAccess) {
    const keyloft::testing::TemporaryFolder folder;
    const auto file = folder.path() / "bastion.key";
    const auto key = loadOrCreateDeviceKey(file);
    EXPECT_EQ(key.size(), 32U);
    EXPECT_EQ(loadOrCreateDeviceKey(file), key);

    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    EXPECT_EQ(info.st_size, 32);
    // Nothing but the key is left in the folder.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

TEST(DeviceKey, DamagedKeyIsRefusedNotReplaced) {
    const keyloft::testing::TemporaryFolder folder;
    const auto file = folder.path() / "bastion.key";
    for (const std::size_t size : {0U, 31U, 33U}) {
        std::ofstream(file, std::ios::binary | std::ios::trunc) << std::string(size, 'k');
        EXPECT_THROW(loadOrCreateDeviceKey(file), PlatformError) << size;
        EXPECT_EQ(std::filesystem::file_size(file), size);
    }
}

// The key opened is checked, not only the name: what another user chose or may read guards nothing.
TEST(DeviceKey, KeyOpenToOtherUsersIsRefusedNotReplaced) {
    const keyloft::testing::TemporaryFolder folder;
    const auto file = folder.path() / "bastion.key";
    const auto key = loadOrCreateDeviceKey(file);
    for (const mode_t mode : {0640U, 0604U, 0620U, 0602U}) {
        ASSERT_EQ(::chmod(file.c_str(), mode), 0);
        EXPECT_THROW(loadOrCreateDeviceKey(file), PlatformError) << std::oct << mode;
    }
    ASSERT_EQ(::chmod(file.c_str(), 0400), 0);
    EXPECT_EQ(loadOrCreateDeviceKey(file), key);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0);
        EXPECT_THROW(loadOrCreateDeviceKey(file), PlatformError);
    }
}

TEST(DeviceKey, RacingProcessesEndWithTheSameKey) {
    const keyloft::testing::TemporaryFolder folder;
    const auto file = folder.path() / "bastion.key";
    constexpr int processes = 8;
    int start[2];
    int keys[2];
    ASSERT_EQ(::pipe(start), 0);
    ASSERT_EQ(::pipe(keys), 0);
    for (int i = 0; i < processes; ++i) {
        if (::fork() == 0) {
            ::close(start[1]);
            char ignored = 0;
            // Every child waits here until the parent closes the pipe, then all go at once.
            const bool released = ::read(start[0], &ignored, 1) == 0;
            try {
                const auto key = loadOrCreateDeviceKey(file);
                // 32 bytes are below PIPE_BUF, so each write arrives whole.
                ::_exit(released && ::write(keys[1], key.data(), key.size()) == 32 ? 0 : 1);
            } catch (const std::exception&) {
                ::_exit(2);
            }
        }
    }
    ::close(start[0]);
    ::close(start[1]);
    ::close(keys[1]);
    int failed = 0;
    for (int i = 0; i < processes; ++i) {
        int status = 0;
        ::wait(&status);
        failed += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
    }
    EXPECT_EQ(failed, 0);

    const auto stored = loadOrCreateDeviceKey(file);
    SecretBytes seen(32);
    int reports = 0;
    while (::read(keys[0], seen.data(), seen.size()) == 32) {
        EXPECT_EQ(seen, stored);
        ++reports;
    }
    ::close(keys[0]);
    EXPECT_EQ(reports, processes);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

}  // namespace
}  // namespace keyloft::platform::key_processor
