// SPDX-License-Identifier: Apache-2.0
// Network namespaces for tests. The namespace's thread runs one function at a time; m_mutex guards the hand-over and is
// not held while the function runs; m_callers lets callers queue.
#include "tests/support/NetworkNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Nimbrel2::Testing {
namespace {

void Check(int result, const char* what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

struct OpenFile {
    OpenFile(const char* path, int flags) : fd(open(path, flags | O_CLOEXEC)) { Check(fd < 0 ? -1 : 0, path); }
    ~OpenFile() { close(fd); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    const int fd;
};

}  // namespace

NetworkNamespace::NetworkNamespace() : m_thread([this] { Serve(); }) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_ready || m_failure; });
    if (m_failure) {
        lock.unlock();
        m_thread.join();
        std::rethrow_exception(m_failure);
    }
    lock.unlock();
    try {
        Ip("link set lo up");
    } catch (...) {
        {
            const std::lock_guard guard(m_mutex);
            m_exit = true;
        }
        m_changed.notify_all();
        m_thread.join();
        throw;
    }
}

NetworkNamespace::~NetworkNamespace() {
    {
        const std::lock_guard lock(m_mutex);
        m_exit = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void NetworkNamespace::Enter() {
    Check(unshare(CLONE_NEWNET | CLONE_NEWNS), "unshare (network namespaces need CAP_SYS_ADMIN)");
    // What this thread mounts is its own from here on.
    SetMountPropagation(MS_SLAVE);
    // /sys/class/net shows the namespace in which /sys was mounted, so this thread gets one of its own.
    Check(mount("sysfs", "/sys", "sysfs", 0, nullptr), "mount /sys");
}

void NetworkNamespace::Serve() {
    std::unique_lock lock(m_mutex);
    m_task = static_cast<pid_t>(syscall(SYS_gettid));
    try {
        Enter();
        m_ready = true;
    } catch (...) {
        m_failure = std::current_exception();
    }
    m_changed.notify_all();
    while (m_ready) {
        m_changed.wait(lock, [this] { return m_exit || m_function != nullptr; });
        if (m_exit) {
            return;
        }
        const std::function<void()>* function = m_function;
        lock.unlock();
        std::exception_ptr failure;
        try {
            (*function)();
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        m_failure = failure;
        m_function = nullptr;
        m_changed.notify_all();
    }
}

void NetworkNamespace::Run(const std::function<void()>& function) {
    if (std::this_thread::get_id() == m_thread.get_id()) {
        function();
        return;
    }
    const std::lock_guard caller(m_callers);
    std::unique_lock lock(m_mutex);
    m_function = &function;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_function == nullptr; });
    if (m_failure) {
        std::rethrow_exception(std::exchange(m_failure, nullptr));
    }
}

std::thread NetworkNamespace::StartThread(std::function<void()> function) {
    std::thread thread;
    Run([&] { thread = std::thread(std::move(function)); });
    return thread;
}

ProgramResult NetworkNamespace::RunProgram(const std::vector<std::string>& arguments,
                                           std::chrono::milliseconds timeout) {
    const std::unique_ptr<ChildProcess> child = StartProgram(arguments);
    ProgramResult result;
    result.exitStatus = child->WaitForExit(timeout);
    result.output = child->GetOutput();
    result.errors = child->GetErrors();
    return result;
}

std::unique_ptr<ChildProcess> NetworkNamespace::StartProgram(const std::vector<std::string>& arguments) {
    std::unique_ptr<ChildProcess> child;
    Run([&] { child = std::make_unique<ChildProcess>(arguments); });
    return child;
}

void NetworkNamespace::Ip(const std::string& words) {
    // The kernel makes and ends namespaces one after the other, in a second each when it is busy, and lets nobody
    // change an interface meanwhile: with many tests at once that is long.
    constexpr std::chrono::minutes longest{2};
    std::vector<std::string> arguments{"ip"};
    std::istringstream stream(words);
    for (std::string word; stream >> word;) {
        arguments.push_back(word);
    }
    const ProgramResult result = RunProgram(arguments, longest);
    if (result.exitStatus != 0) {
        throw std::runtime_error("ip " + words + ": exit status " + std::to_string(result.exitStatus) + ", " +
                                 result.errors);
    }
}

void NetworkNamespace::SetSystemControl(const std::string& name, const std::string& value) {
    Run([&] {
        std::ofstream file("/proc/sys/" + name);
        file << value << std::flush;
        if (!file) {
            throw std::runtime_error("/proc/sys/" + name + " does not take " + value);
        }
    });
}

void SetMountPropagation(unsigned long propagation) {
    const OpenFile root("/", O_PATH | O_DIRECTORY);
    const OpenFile working(".", O_PATH | O_DIRECTORY);
    // In a chroot "/" may not be a mount point, but a thread that enters a mount namespace, even its own, stands at its
    // root.
    Check(setns(OpenFile("/proc/thread-self/ns/mnt", O_RDONLY).fd, CLONE_NEWNS), "setns (needs CAP_SYS_CHROOT)");
    Check(mount("", "/", nullptr, propagation | MS_REC, nullptr), "mount propagation");
    Check(fchdir(root.fd), "go back to the root");
    Check(chroot("."), "chroot");
    Check(fchdir(working.fd), "go back to the working folder");
}

void Connect(NetworkNamespace& first, const std::string& firstInterface, NetworkNamespace& second,
             const std::string& secondInterface) {
    first.Ip("link add " + firstInterface + " type veth peer name " + secondInterface + " netns " +
             std::to_string(second.GetTask()));
    first.Ip("link set " + firstInterface + " up");
    second.Ip("link set " + secondInterface + " up");
}

}  // namespace Nimbrel2::Testing
