// SPDX-License-Identifier: Apache-2.0
// What the monitor thread waits on: sockets, a wake-up, and a deadline.
// Wait: the monitor thread only. Everything else: any thread, no lock.
#ifndef NIMBREL2_PLATFORM_BASE_POLLER_H
#define NIMBREL2_PLATFORM_BASE_POLLER_H

#include <cstdint>
#include <vector>

#include "platform/base/Clock.h"
#include "platform/base/FileDescriptor.h"

namespace Nimbrel2::Platform {

class Poller {
public:
    /// @return 0 or an errno.
    int Open();

    /// Starts to report when fd can be read. @return 0 or an errno.
    int Add(int fd, std::uint64_t token);
    void Remove(int fd);

    /// Ends the running Wait, or the next one.
    void Wake();

    /// Waits until something can be read, Wake was called or the deadline has come, and fills the tokens of what can be
    /// read.
    void Wait(TimePoint deadline, std::vector<std::uint64_t>* tokens);

private:
    FileDescriptor m_epoll;
    FileDescriptor m_wake;
    FileDescriptor m_timer;
};

}  // namespace Nimbrel2::Platform

#endif
