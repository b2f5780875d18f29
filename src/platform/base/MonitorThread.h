// SPDX-License-Identifier: Apache-2.0
// The life of a driver's monitor: one thread that waits on a poller and does one turn after the other until it is told
// to stop. Start and Stop: one thread at a time. The rest: any thread.
#ifndef NIMBREL2_PLATFORM_BASE_MONITORTHREAD_H
#define NIMBREL2_PLATFORM_BASE_MONITORTHREAD_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

#include "platform/base/Poller.h"
#include "platform/base/StartThread.h"

namespace Nimbrel2::Platform {

class MonitorThread {
public:
    MonitorThread() = default;
    ~MonitorThread() { Stop(); }
    MonitorThread(const MonitorThread&) = delete;
    MonitorThread& operator=(const MonitorThread&) = delete;

    /// Opens the poller. @return HALStatus
    std::uint32_t Open();

    /// Starts the thread. Each turn waits on the poller as long as it sees fit; what Wake and Stop call ends the wait.
    /// A turn that runs out of memory is followed by the next one a little later.
    /// @param name  At most 15 characters, for debuggers.
    /// @return HAL_OUT_OF_MEMORY when there is no room for a thread.
    std::uint32_t Start(const char* name, std::function<void()> turn,
                        const ThreadStarter& startThread = Platform::StartThread);

    /// Ends the running turn's wait and joins the thread. Nothing happens when there is none.
    void Stop();

    Poller& GetPoller() { return m_poller; }
    void Wake() { m_poller.Wake(); }
    bool IsStopping() const { return m_stopping; }
    /// Whether it is this thread that asks: a turn does.
    bool IsCurrent() const { return std::this_thread::get_id() == m_id.load(); }

private:
    Poller m_poller;
    std::thread m_thread;
    std::atomic<std::thread::id> m_id;
    std::atomic<bool> m_stopping{false};
};

}  // namespace Nimbrel2::Platform

#endif
