// SPDX-License-Identifier: Apache-2.0
// What the kernel says of the threads of this process, and a fork for tests. Any thread; no lock.
#ifndef NIMBREL2_TESTS_SUPPORT_PROCESSTHREADS_H
#define NIMBREL2_TESTS_SUPPORT_PROCESSTHREADS_H

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace Nimbrel2::Testing {

struct ProcessThread {
    std::string name;
    char state = '?';           ///< As ps shows it: R, S, ...
    std::uint64_t blocked = 0;  ///< Signal n is bit n - 1.
    pid_t id = 0;

    bool Blocks(int signal) const { return (blocked >> (signal - 1) & 1) != 0; }
};

/// All threads of this process. One that ends meanwhile may be missing.
inline std::vector<ProcessThread> ListThreads() {
    std::vector<ProcessThread> threads;
    for (const auto& folder : std::filesystem::directory_iterator("/proc/self/task")) {
        ProcessThread thread;
        thread.id = std::stoi(folder.path().filename().string());
        std::ifstream status(folder.path() / "status");
        for (std::string line; std::getline(status, line);) {
            const std::string value = line.substr(line.find('\t') + 1);
            if (line.rfind("Name:", 0) == 0) {
                thread.name = value;
            }
            if (line.rfind("State:", 0) == 0) {
                thread.state = value.front();
            }
            if (line.rfind("SigBlk:", 0) == 0) {
                thread.blocked = std::stoull(value, nullptr, 16);
            }
        }
        if (!thread.name.empty()) {
            threads.push_back(thread);
        }
    }
    return threads;
}

/// The threads of this process whose names begin so.
inline std::vector<ProcessThread> ListThreads(const std::string& prefix) {
    std::vector<ProcessThread> threads = ListThreads();
    std::erase_if(threads, [&](const ProcessThread& thread) { return thread.name.rfind(prefix, 0) != 0; });
    return threads;
}

/// The sorted names of threads.
inline std::vector<std::string> NamesOf(const std::vector<ProcessThread>& threads) {
    std::vector<std::string> names;
    for (const ProcessThread& thread : threads) {
        names.push_back(thread.name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// What is wrong with the masks of these threads of the library, which take the signals of their own faults, SIGABRT
/// and SIGPROF. A thread that is starting another blocks everything for a moment.
inline std::vector<std::string> WrongMasks(const std::vector<ProcessThread>& threads) {
    std::vector<std::string> wrong;
    for (const ProcessThread& thread : threads) {
        for (int number = 1; number <= SIGRTMAX; ++number) {
            const bool isOfTheCLibrary = number > SIGSYS && number < SIGRTMIN;
            if (number == SIGKILL || number == SIGSTOP || isOfTheCLibrary) {
                continue;
            }
            const bool isOpen = number == SIGSEGV || number == SIGBUS || number == SIGFPE || number == SIGILL ||
                                number == SIGTRAP || number == SIGSYS || number == SIGABRT || number == SIGPROF;
            if (thread.Blocks(number) == isOpen) {
                wrong.push_back(thread.name + " and signal " + std::to_string(number));
            }
        }
    }
    return wrong;
}

/// Runs a function in a forked process, which ends with what it returns as its status, without any exit handler.
/// @return the status; 128 + the signal's number when a signal ended it. A process that hangs is ended by SIGALRM.
template <class Function>
int InForkedProcess(Function function) {
    const pid_t process = fork();
    if (process == 0) {
        alarm(20);
        _exit(function());
    }
    int status = 0;
    if (process < 0 || waitpid(process, &status, 0) != process) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace Nimbrel2::Testing

#endif
