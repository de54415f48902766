#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <string>
#include <string_view>

namespace keyloft::testing {

struct ChildOutcome {
    bool succeeded = false;
    std::string error;   // what() of the exception that ended the body
    std::string screen;  // everything the child showed on its terminal
};

// Runs body in a child process that leads a new session, so that its controlling terminal is
// under the test's control: none, or a fresh pseudo-terminal. On the terminal, the parent types
// `answer` once `prompt` has been shown.
inline ChildOutcome runInSession(const std::function<void()>& body, bool withTerminal,
                                 std::string_view prompt = {}, std::string_view answer = {}) {
    int master = -1;
    std::string terminalName;
    if (withTerminal) {
        master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) std::abort();
        terminalName = ::ptsname(master);
    }
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) std::abort();

    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(report[0]);
        ::setsid();
        if (withTerminal) {
            ::close(master);
            const int terminal = ::open(terminalName.c_str(), O_RDWR);
            if (terminal < 0 || ::ioctl(terminal, TIOCSCTTY, 0) != 0) ::_exit(3);
        }
        std::string error;
        try {
            body();
        } catch (const std::exception& e) {
            error = e.what();
            if (error.empty()) error = "(no message)";
        }
        if (!error.empty() && ::write(report[1], error.data(), error.size()) < 0) ::_exit(4);
        ::_exit(error.empty() ? 0 : 1);
    }
    ::close(report[1]);

    ChildOutcome outcome;
    if (withTerminal) {
        bool answered = answer.empty();
        char buffer[512];
        pollfd ready{master, POLLIN, 0};
        // Reading ends with EIO once the child has closed the terminal, or after 30 silent seconds.
        while (::poll(&ready, 1, 30000) > 0) {
            const ssize_t n = ::read(master, buffer, sizeof buffer);
            if (n <= 0) break;
            outcome.screen.append(buffer, static_cast<std::size_t>(n));
            if (!answered && outcome.screen.find(prompt) != std::string::npos) {
                answered = ::write(master, answer.data(), answer.size()) > 0;
            }
        }
        ::close(master);
    }
    char buffer[512];
    for (ssize_t n; (n = ::read(report[0], buffer, sizeof buffer)) > 0;)
        outcome.error.append(buffer, static_cast<std::size_t>(n));
    ::close(report[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    outcome.succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return outcome;
}

}  // namespace keyloft::testing
