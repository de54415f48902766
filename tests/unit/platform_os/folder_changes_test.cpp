#include "platform/os/folder_changes.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "support/temporary_folder.hpp"

namespace keyloft::testing {
namespace {

void write(const std::filesystem::path& file, const std::string& text) {
    std::ofstream(file, std::ios::app) << text;
}

// The answer may be "yes" too often, never "no" after a change.
TEST(FolderChanges, SeesEveryChangeAndIsQuietOtherwise) {
    const TemporaryFolder root;
    const auto folder = root.path() / "data";
    platform::os::FolderChanges changes(folder, std::chrono::milliseconds(0));
    // Missing: its parent tells when it appears.
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());

    std::filesystem::create_directory(folder);
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());

    write(folder / "tokens.db-wal", "frame");
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());
    write(folder / "tokens.db-wal", "another frame");
    EXPECT_TRUE(changes.changedSinceLastAsk());

    std::filesystem::rename(folder / "tokens.db-wal", folder / "moved");
    EXPECT_TRUE(changes.changedSinceLastAsk());
    std::filesystem::remove(folder / "moved");
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());

    // The folder replaced by a new one is watched again.
    std::filesystem::remove_all(folder);
    EXPECT_TRUE(changes.changedSinceLastAsk());
    std::filesystem::create_directory(folder);
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());
    write(folder / "tokens.db", "new store");
    EXPECT_TRUE(changes.changedSinceLastAsk());
}

// The name may come to lead to another folder: each is watched in turn.
TEST(FolderChanges, FollowsTheFolderTheNameLeadsTo) {
    const TemporaryFolder root;
    const auto folder = root.path() / "data";
    const auto away = root.path() / "away";
    const auto other = root.path() / "other";
    std::filesystem::create_directory(folder);
    std::filesystem::create_directory(other);
    platform::os::FolderChanges changes(folder, std::chrono::milliseconds(0));
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());

    std::filesystem::rename(folder, away);
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());
    // The folder renamed away is no longer followed.
    write(away / "tokens.db", "old");
    EXPECT_FALSE(changes.changedSinceLastAsk());

    std::filesystem::rename(other, folder);
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());
    write(folder / "tokens.db", "restored");
    EXPECT_TRUE(changes.changedSinceLastAsk());

    // A link put in the folder's place, then pointed elsewhere.
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory_symlink(away, folder);
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());
    write(away / "tokens.db", "linked");
    EXPECT_TRUE(changes.changedSinceLastAsk());
    std::filesystem::create_directory(other);
    std::filesystem::create_directory_symlink(other, root.path() / "link");
    std::filesystem::rename(root.path() / "link", folder);
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());
    write(away / "tokens.db", "no longer linked");
    EXPECT_FALSE(changes.changedSinceLastAsk());
    write(other / "tokens.db", "linked now");
    EXPECT_TRUE(changes.changedSinceLastAsk());
}

// A write is seen before what it writes may be readable: asks keep answering yes for a while.
TEST(FolderChanges, KeepsAnsweringYesWhileWritesSettle) {
    const TemporaryFolder root;
    platform::os::FolderChanges changes(root.path(), std::chrono::milliseconds(200));
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_FALSE(changes.changedSinceLastAsk());
    write(root.path() / "tokens.db-wal", "frame");
    EXPECT_TRUE(changes.changedSinceLastAsk());
    EXPECT_TRUE(changes.changedSinceLastAsk());
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_FALSE(changes.changedSinceLastAsk());
}

}  // namespace
}  // namespace keyloft::testing
