// SPDX-License-Identifier: Apache-2.0
// Programs run by tests: fork, exec, pipes and a pidfd to wait on. One thread at a time; no lock.
#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace Nimbrel2::Testing {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void ThrowErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

struct Pipe {
    std::array<int, 2> ends{-1, -1};

    Pipe() {
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            ThrowErrno("pipe2");
        }
    }
    ~Pipe() {
        for (const int fd : ends) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int TakeReadEnd() {
        const int fd = ends[0];
        ends[0] = -1;
        return fd;
    }
};

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    Pipe output;
    Pipe errors;
    Pipe failure;
    m_pid = fork();
    if (m_pid < 0) {
        ThrowErrno("fork");
    }
    if (m_pid == 0) {
        // Only async-signal-safe calls from here on: other threads of the test may hold any lock.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(output.ends[1], STDOUT_FILENO);
        dup2(errors.ends[1], STDERR_FILENO);
        execvp(argv[0], argv.data());
        const int error = errno;
        if (write(failure.ends[1], &error, sizeof(error)) < 0) {
            _exit(126);
        }
        _exit(127);
    }
    close(failure.ends[1]);
    failure.ends[1] = -1;
    int error = 0;
    if (read(failure.ends[0], &error, sizeof(error)) == static_cast<ssize_t>(sizeof(error))) {
        waitpid(m_pid, nullptr, 0);
        throw std::system_error(error, std::generic_category(), arguments.front());
    }
    m_pidFd = static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0));
    if (m_pidFd < 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        ThrowErrno("pidfd_open");
    }
    m_output.fd = output.TakeReadEnd();
    m_errors.fd = errors.TakeReadEnd();
}

ChildProcess::~ChildProcess() {
    if (!m_ended) {
        kill(m_pid, SIGKILL);
        Reap(true);
    }
    for (const int fd : {m_pidFd, m_output.fd, m_errors.fd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void ChildProcess::Signal(int number) {
    if (!m_ended) {
        kill(m_pid, number);
    }
}

void ChildProcess::Read(Stream* stream) {
    std::array<char, 4096> buffer;
    const ssize_t size = read(stream->fd, buffer.data(), buffer.size());
    if (size > 0) {
        stream->text.append(buffer.data(), static_cast<std::size_t>(size));
    } else if (size == 0 || errno != EINTR) {
        close(stream->fd);
        stream->fd = -1;
    }
}

void ChildProcess::Reap(bool wait) {
    int status = 0;
    if (m_ended || waitpid(m_pid, &status, wait ? 0 : WNOHANG) != m_pid) {
        return;
    }
    m_ended = true;
    m_exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool ChildProcess::Pump(std::chrono::milliseconds timeout) {
    std::array<pollfd, 3> waits{
        {{m_output.fd, POLLIN, 0}, {m_errors.fd, POLLIN, 0}, {m_ended ? -1 : m_pidFd, POLLIN, 0}}};
    if (waits[0].fd < 0 && waits[1].fd < 0 && waits[2].fd < 0) {
        return false;
    }
    if (poll(waits.data(), waits.size(), static_cast<int>(timeout.count())) <= 0) {
        return true;
    }
    if (waits[0].revents != 0) {
        Read(&m_output);
    }
    if (waits[1].revents != 0) {
        Read(&m_errors);
    }
    if (waits[2].revents != 0) {
        Reap(false);
    }
    return true;
}

bool ChildProcess::WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    while (!condition()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !Pump(left)) {
            return condition();
        }
    }
    return true;
}

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
    return WaitUntil([&] { return m_output.text.find(text) != std::string::npos; }, timeout);
}

bool ChildProcess::WaitForErrors(const std::string& text, std::chrono::milliseconds timeout) {
    return WaitUntil([&] { return m_errors.text.find(text) != std::string::npos; }, timeout);
}

int ChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
    WaitUntil([this] { return m_ended && m_output.fd < 0 && m_errors.fd < 0; }, timeout);
    if (!m_ended) {
        kill(m_pid, SIGKILL);
        Reap(true);
    }
    return m_exitStatus;
}

ProgramResult RunProgram(const std::vector<std::string>& arguments, std::chrono::milliseconds timeout) {
    ChildProcess child(arguments);
    ProgramResult result;
    result.exitStatus = child.WaitForExit(timeout);
    result.output = child.GetOutput();
    result.errors = child.GetErrors();
    return result;
}

}  // namespace Nimbrel2::Testing
