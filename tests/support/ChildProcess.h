// SPDX-License-Identifier: Apache-2.0
// A program that a test runs beside itself: its output is read while the test waits for it, and it never outlives the
// test. One thread at a time; no lock.
#ifndef NIMBREL2_TESTS_SUPPORT_CHILDPROCESS_H
#define NIMBREL2_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Nimbrel2::Testing {

class ChildProcess {
public:
    /// Starts the program (found on PATH) with these arguments, in the namespaces of the calling thread. The kernel
    /// kills it when that thread ends, so that a killed test leaves nothing behind.
    /// @throws std::system_error when it cannot be started.
    explicit ChildProcess(const std::vector<std::string>& arguments);

    /// Kills what still runs.
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t GetPid() const { return m_pid; }

    /// Everything read so far.
    const std::string& GetOutput() const { return m_output.text; }
    const std::string& GetErrors() const { return m_errors.text; }

    /// Reads until the condition holds. @return false when the program ended, or the time did, without it.
    bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

    /// Reads until standard output (or standard error) contains the text.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout);
    bool WaitForErrors(const std::string& text, std::chrono::milliseconds timeout);

    void Signal(int number);

    /// Waits for the end and all output. A program that does not end in time is killed.
    /// @return its exit status; 128 + the signal's number when a signal ended it.
    int WaitForExit(std::chrono::milliseconds timeout);

private:
    struct Stream {
        int fd = -1;
        std::string text;
    };

    /// Reads what comes until the end of all three, at most that long. @return false when nothing is left to wait for.
    bool Pump(std::chrono::milliseconds timeout);
    static void Read(Stream* stream);
    void Reap(bool wait);

    pid_t m_pid = -1;
    int m_pidFd = -1;
    bool m_ended = false;
    int m_exitStatus = -1;
    Stream m_output;
    Stream m_errors;
};

struct ProgramResult {
    int exitStatus = -1;
    std::string output;
    std::string errors;
};

/// Runs a program to its end.
ProgramResult RunProgram(const std::vector<std::string>& arguments,
                         std::chrono::milliseconds timeout = std::chrono::seconds(20));

}  // namespace Nimbrel2::Testing

#endif
