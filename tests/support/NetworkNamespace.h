// SPDX-License-Identifier: Apache-2.0
// A network of a test's own: a namespace with nothing but a loopback interface, and a thread that lives in it.
// It has no name in the file system, so the kernel takes it away with the test however that ends.
// Needs CAP_SYS_ADMIN. Any thread may call; calls on one namespace run one after another on its thread.
#ifndef NIMBREL2_TESTS_SUPPORT_NETWORKNAMESPACE_H
#define NIMBREL2_TESTS_SUPPORT_NETWORKNAMESPACE_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace Nimbrel2::Testing {

class NetworkNamespace {
public:
    /// Makes the namespace; lo is up. @throws std::system_error without the right to.
    NetworkNamespace();

    /// Ends the thread. The namespace is gone when sockets, threads and programs in it are.
    ~NetworkNamespace();

    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    /// Runs the function inside and waits for its end. Sockets, threads and programs that it makes are inside too and
    /// stay there. What it throws comes out here.
    void Run(const std::function<void()>& function);

    /// A thread that runs inside, for the caller to join.
    std::thread StartThread(std::function<void()> function);

    /// Runs a program inside, to its end. /sys shows the namespace's own interfaces.
    ProgramResult RunProgram(const std::vector<std::string>& arguments,
                             std::chrono::milliseconds timeout = std::chrono::seconds(20));

    /// Starts a program inside. It is killed at the latest when this object is destroyed.
    std::unique_ptr<ChildProcess> StartProgram(const std::vector<std::string>& arguments);

    /// `ip` with these words, split at spaces. @throws std::runtime_error with its output when it fails.
    void Ip(const std::string& words);

    /// Writes a setting below /proc/sys, "net/ipv4/conf/all/rp_filter" for one.
    void SetSystemControl(const std::string& name, const std::string& value);

    /// The task whose namespace this is, as `ip link set ... netns` takes it.
    pid_t GetTask() const { return m_task; }

private:
    void Serve();
    void Enter();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    const std::function<void()>* m_function = nullptr;
    std::exception_ptr m_failure;
    bool m_exit = false;
    bool m_ready = false;
    pid_t m_task = 0;
    std::mutex m_callers;
    std::thread m_thread;
};

/// Joins two namespaces by a cable: one interface in each, up, without addresses.
void Connect(NetworkNamespace& first, const std::string& firstInterface, NetworkNamespace& second,
             const std::string& secondInterface);

/// Has the calling thread's mounts spread as MS_PRIVATE, MS_SLAVE or MS_SHARED says, from the root of its mount
/// namespace down. That must be its own, as it is after unshare(CLONE_NEWNS). @throws std::system_error
void SetMountPropagation(unsigned long propagation);

}  // namespace Nimbrel2::Testing

#endif
