#pragma once

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "support/temporary_folder.hpp"

namespace keyloft::testing {

// A TPM 2.0 simulator of this test's own (swtpm), on free local ports with its state in a
// temporary folder, stopped with the object. Clients talk to it directly: no resource manager, so
// it holds only three loaded objects at a time.
class SoftwareTpm {
  public:
    // Nothing when swtpm is not installed or does not start.
    static std::optional<std::string> start(SoftwareTpm& tpm) {
        for (int attempt = 0; attempt < 5; ++attempt) {
            if (tpm.tryStart()) return tpm.tcti();
        }
        return std::nullopt;
    }

    SoftwareTpm() = default;
    SoftwareTpm(const SoftwareTpm&) = delete;
    SoftwareTpm& operator=(const SoftwareTpm&) = delete;
    ~SoftwareTpm() { stop(); }

    std::string tcti() const { return "swtpm:host=127.0.0.1,port=" + std::to_string(port_); }

  private:
    static int freePortPair() {
        for (int attempt = 0; attempt < 20; ++attempt) {
            const int port = bound(0);
            if (port > 0 && port < 65535 && bound(port + 1) > 0) return port;
        }
        return 0;
    }

    // The port a socket bound to it got (any when 0), released again; 0 when taken.
    static int bound(int port) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        socklen_t size = sizeof address;
        int result = 0;
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
            result = ntohs(address.sin_port);
        }
        close(fd);
        return result;
    }

    static bool accepts(int port) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        close(fd);
        return ok;
    }

    bool tryStart() {
        stop();
        port_ = freePortPair();
        if (port_ == 0) return false;
        const std::string state = "dir=" + folder_.path().string();
        const std::string server = "type=tcp,bindaddr=127.0.0.1,port=" + std::to_string(port_);
        const std::string control = "type=tcp,bindaddr=127.0.0.1,port=" + std::to_string(port_ + 1);
        pid_ = fork();
        if (pid_ == 0) {
            execlp("swtpm", "swtpm", "socket", "--tpm2", "--tpmstate", state.c_str(), "--server",
                   server.c_str(), "--ctrl", control.c_str(), "--flags",
                   "not-need-init,startup-clear", static_cast<char*>(nullptr));
            _exit(127);
        }
        if (pid_ < 0) return false;
        for (int wait = 0; wait < 200; ++wait) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return false;
            }
            // Probing the control port: a connection to the server port would take its only
            // client slot until it closes.
            if (accepts(port_ + 1)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        return false;
    }

    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    TemporaryFolder folder_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// Continuous integration runs every TPM test: there a missing simulator is a failure.
inline bool inContinuousIntegration() {
    const char* ci = std::getenv("CI");
    return ci != nullptr && std::string(ci) == "true";
}

}  // namespace keyloft::testing
