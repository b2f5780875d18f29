// SPDX-License-Identifier: Apache-2.0
// What the kernel says of the threads of this process, and a fork for tests. Any thread; no lock.
#ifndef NIMBREL2_TESTS_SUPPORT_PROCESSTHREADS_H
#define NIMBREL2_TESTS_SUPPORT_PROCESSTHREADS_H

#include <sys/wait.h>
#include <unistd.h>

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
            if (line.rfind("Name:", 0) == 0) thread.name = value;
            if (line.rfind("State:", 0) == 0) thread.state = value.front();
            if (line.rfind("SigBlk:", 0) == 0) thread.blocked = std::stoull(value, nullptr, 16);
        }
        if (!thread.name.empty()) threads.push_back(thread);
    }
    return threads;
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
    if (process < 0 || waitpid(process, &status, 0) != process) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace Nimbrel2::Testing

#endif
