#include "platform/os/files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "base/error.hpp"
#include "base/utf8.hpp"
#include "platform/os/file_descriptor.hpp"

namespace keyloft::platform::os {
namespace {

[[noreturn]] void fail(std::string_view what, const std::filesystem::path& path, int error) {
    throw PlatformError(std::string(what) + " '" + path.string() + "': " + std::strerror(error));
}

void writeAll(int fd, ByteView content, const std::filesystem::path& path) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("Cannot write file", path, errno);
        }
        done += static_cast<std::size_t>(n);
    }
}

void closeChecked(FileDescriptor& fd, const std::filesystem::path& path) {
    if (::close(fd.release()) != 0) fail("Cannot write file", path, errno);
}

void fill(int fd, ByteView content, FileAccess access, const std::filesystem::path& path) {
    mode_t mode = 0600;
    if (access == FileAccess::usual) {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }
    if (::fchmod(fd, mode) != 0) fail("Cannot write file", path, errno);
    writeAll(fd, content, path);
    if (::fsync(fd) != 0) fail("Cannot write file", path, errno);
}

// A free name beside the target, for a file about to be renamed over it.
std::filesystem::path temporaryName(const std::filesystem::path& path) {
    static constexpr std::string_view letters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device random;
    std::string suffix = ".tmp-";
    for (int i = 0; i < 6; ++i) suffix += letters[random() % letters.size()];
    auto name = path;
    name += suffix;
    return name;
}

// Names the unnamed file at the target: linked there when the name is free, else linked beside it
// and renamed over it, so that a link at the name is replaced, never followed. False when the
// file cannot be reached by name to link it (no /proc).
bool linkInPlace(int fd, const std::filesystem::path& path) {
    const std::string source = "/proc/self/fd/" + std::to_string(fd);
    const auto link = [&](const std::filesystem::path& name) {
        return ::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
    };
    if (link(path)) return true;
    if (errno == ENOENT) return false;
    if (errno != EEXIST) fail("Cannot write file", path, errno);
    for (int attempt = 0; attempt < 100; ++attempt) {
        const auto temporary = temporaryName(path);
        if (!link(temporary)) {
            if (errno == EEXIST) continue;
            fail("Cannot write file", path, errno);
        }
        if (::rename(temporary.c_str(), path.c_str()) != 0) {
            const int error = errno;
            ::unlink(temporary.c_str());
            fail("Cannot write file", path, error);
        }
        return true;
    }
    fail("Cannot write file", path, EEXIST);
}

void replaceThroughNamedFile(const std::filesystem::path& path, ByteView content,
                             FileAccess access) {
    auto temporary = path;
    temporary += ".tmp-XXXXXX";
    std::string pattern = temporary.string();
    FileDescriptor fd(::mkstemp(pattern.data()));
    if (fd.get() < 0) fail("Cannot write file", path, errno);
    try {
        fill(fd.get(), content, access, path);
        closeChecked(fd, path);
        if (::rename(pattern.c_str(), path.c_str()) != 0) fail("Cannot write file", path, errno);
    } catch (...) {
        ::unlink(pattern.c_str());
        throw;
    }
}

}  // namespace

Bytes readFile(const std::filesystem::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) fail("Cannot read file", path, errno);
    Bytes content;
    std::uint8_t buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("Cannot read file", path, errno);
        }
        if (n == 0) break;
        content.insert(content.end(), buffer, buffer + n);
    }
    return content;
}

std::string readTextFile(const std::filesystem::path& path) {
    const Bytes content = readFile(path);
    std::string text(content.begin(), content.end());
    if (!isUtf8(text)) {
        throw PlatformError("Cannot read file '" + path.string() + "': it is not a text file");
    }
    return text;
}

void replaceFileAtomically(const std::filesystem::path& path, ByteView content, FileAccess access) {
    // Written unnamed and named only once whole and synced: a crash before that leaves nothing
    // beside the target. Filesystems without unnamed files get a named temporary file instead.
    const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    FileDescriptor fd(::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (!fd.isOpen()) {
        if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)
            fail("Cannot write file", path, errno);
        return replaceThroughNamedFile(path, content, access);
    }
    fill(fd.get(), content, access, path);
    if (!linkInPlace(fd.get(), path)) replaceThroughNamedFile(path, content, access);
}

}  // namespace keyloft::platform::os
