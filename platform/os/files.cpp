#include "platform/os/files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
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
    auto temporary = path;
    temporary += ".tmp-XXXXXX";
    std::string pattern = temporary.string();
    FileDescriptor fd(::mkstemp(pattern.data()));
    if (fd.get() < 0) fail("Cannot write file", path, errno);
    try {
        // mkstemp makes the file 0600, which owner-only files keep.
        if (access == FileAccess::usual) {
            const mode_t mask = ::umask(0);
            ::umask(mask);
            if (::fchmod(fd.get(), 0666 & ~mask) != 0) fail("Cannot write file", path, errno);
        }
        writeAll(fd.get(), content, path);
        if (::fsync(fd.get()) != 0) fail("Cannot write file", path, errno);
        closeChecked(fd, path);
        if (::rename(pattern.c_str(), path.c_str()) != 0) fail("Cannot write file", path, errno);
    } catch (...) {
        ::unlink(pattern.c_str());
        throw;
    }
}

}  // namespace keyloft::platform::os
