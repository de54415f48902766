#include "platform/key_processor/device_key.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/error.hpp"
#include "platform/crypto/random.hpp"
#include "platform/os/file_descriptor.hpp"
#include "platform/os/private_files.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr std::size_t deviceKeySize = 32;

[[noreturn]] void fail(const std::filesystem::path& file, const char* what) {
    throw PlatformError("Key processor: cannot " + std::string(what) + " the device key " +
                        file.string() + ": " + std::strerror(errno));
}

std::optional<crypto::SecretBytes> readKey(const std::filesystem::path& file) {
    const os::FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.isOpen()) {
        if (errno == ENOENT) return std::nullopt;
        fail(file, "read");
    }
    // Checked on what was opened: a key that another user chose, or may read, guards nothing.
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) fail(file, "read");
    os::checkPrivate(info, "device key", file, os::Privacy::ownerOnly);
    crypto::SecretBytes key(deviceKeySize + 1);
    const ssize_t n = ::read(fd.get(), key.data(), key.size());
    if (n != static_cast<ssize_t>(deviceKeySize)) {
        throw PlatformError("Key processor: the device key " + file.string() + " is damaged");
    }
    key.resize(deviceKeySize);
    return key;
}

}  // namespace

crypto::SecretBytes loadOrCreateDeviceKey(const std::filesystem::path& file) {
    if (auto key = readKey(file)) return std::move(*key);

    crypto::SecretBytes key(deviceKeySize);
    if (!crypto::randomBytes(key))
        throw PlatformError("Key processor: the random generator failed");
    // mkstemp creates the file with mode 0600 and a name no other process holds.
    std::string temporary = file.string() + ".XXXXXX";
    os::FileDescriptor fd(::mkstemp(temporary.data()));
    if (!fd.isOpen()) fail(file, "create");
    const bool written =
        ::write(fd.get(), key.data(), key.size()) == static_cast<ssize_t>(key.size()) &&
        ::fsync(fd.get()) == 0;
    // link() never replaces an existing file, so the first process to get there wins and the
    // others read its key.
    const bool linked = written && ::link(temporary.c_str(), file.c_str()) == 0;
    const int error = errno;
    fd.reset();
    ::unlink(temporary.c_str());
    errno = error;
    if (!written) fail(file, "write");
    if (linked) return key;
    if (error == EEXIST) {
        if (auto existing = readKey(file)) return std::move(*existing);
    }
    fail(file, "create");
}

}  // namespace keyloft::platform::key_processor
