// SPDX-License-Identifier: Apache-2.0
// What the platform keeps for the whole process: the options, and the session while there is one.
#ifndef NIMBREL2_PLATFORM_HAL_PROCESS_H
#define NIMBREL2_PLATFORM_HAL_PROCESS_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/base/Mutex.h"
#include "platform/base/StartThread.h"
#include "platform/hal/DriverFactory.h"
#include "platform/hal/Session.h"

namespace Nimbrel2::Platform {

/// How the drivers of a session are made.
using DriverFactory = std::function<Drivers(const Options& options, const BusEventSinks& sinks)>;

/// Never destroyed, so a HAL call during or after exit finds a mutex and no session, and answers HAL_CLOSED. A process
/// that was forked from the one that started the session finds the same, without looking at the mutex, which may be
/// taken there for good.
/// @par Threads  Any. The mutex is held for copies only, never while a session starts, closes or works.
class Process {
public:
    /// The one object. Needs no memory.
    static Process& Get();

    /// @return HAL_BUSY unless closed; HAL_CLOSED in a forked process; HAL_OUT_OF_MEMORY. @throws what a driver throws;
    /// nothing was started then.
    std::uint32_t Start();
    /// @return HAL_CLOSED when there is no session.
    std::uint32_t Stop();
    /// Null when there is none, or one that is starting or closing.
    std::shared_ptr<Session> CurrentSession();

    /// These take effect with the next Start. @return HAL_BUSY unless closed, and in a forked process.
    std::uint32_t SetOptions(Options options);
    /// For tests: other drivers, another way to start delivery threads. An empty one brings ours back.
    std::uint32_t SetDriverFactory(DriverFactory factory);
    std::uint32_t SetThreadStarter(ThreadStarter starter);

private:
    enum class State { Closed, Starting, Running, Closing };

    Process() = default;

    bool IsForked() const;

    std::atomic<pid_t> m_owner{0};  // The process whose session there is or was about to be; 0 while closed.
    Mutex m_mutex;                  // Taken alone.
    State m_state NIMBREL2_GUARDED_BY(m_mutex) = State::Closed;
    std::shared_ptr<Session> m_session NIMBREL2_GUARDED_BY(m_mutex);  // Set exactly while Running.
    Options m_options NIMBREL2_GUARDED_BY(m_mutex);
    DriverFactory m_makeDrivers NIMBREL2_GUARDED_BY(m_mutex) = &MakeDrivers;
    ThreadStarter m_startThread NIMBREL2_GUARDED_BY(m_mutex) = &StartThread;
};

}  // namespace Nimbrel2::Platform

#endif
