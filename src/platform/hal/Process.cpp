// SPDX-License-Identifier: Apache-2.0
// Start, stop and hand-out of the session. Any thread; takes the process's mutex for copies only.
#include "platform/hal/Process.h"

#include <unistd.h>

#include <cstddef>
#include <new>
#include <utility>

namespace Nimbrel2::Platform {

Process& Process::Get() {
    alignas(Process) static std::byte memory[sizeof(Process)];
    static Process& process = *new (memory) Process;
    return process;
}

bool Process::IsForked() const {
    const pid_t owner = m_owner;
    return owner != 0 && owner != getpid();
}

std::uint32_t Process::Start() {
    if (IsForked()) {
        return HAL_CLOSED;
    }
    Options options;
    DriverFactory makeDrivers;
    ThreadStarter startThread;
    {
        const LockGuard lock(m_mutex);
        if (m_state != State::Closed) {
            return HAL_BUSY;
        }
        options = m_options;
        makeDrivers = m_makeDrivers;
        startThread = m_startThread;
        m_state = State::Starting;
        m_owner = getpid();
    }
    std::shared_ptr<Session> session;
    std::uint32_t status = HAL_FAILED;
    try {
        session = std::make_shared<Session>(startThread);
        status = session->Start(makeDrivers, options);
    } catch (...) {
        session.reset();
        const LockGuard lock(m_mutex);
        m_state = State::Closed;
        m_owner = 0;
        throw;
    }
    // A failed session ends before anybody may start the next.
    if (status != HAL_OK) {
        session.reset();
    }
    const LockGuard lock(m_mutex);
    m_state = session ? State::Running : State::Closed;
    if (!session) {
        m_owner = 0;
    }
    m_session = std::move(session);
    return status;
}

std::uint32_t Process::Stop() {
    if (IsForked()) {
        return HAL_CLOSED;
    }
    std::shared_ptr<Session> session;
    {
        const LockGuard lock(m_mutex);
        if (m_state != State::Running) {
            return HAL_CLOSED;
        }
        m_state = State::Closing;
        session = std::move(m_session);
    }
    // Whatever it is made to answer, a clean-up cleans up.
    const std::uint32_t status = session->Enter("HAL_CleanupLibrary");
    session->Close();
    session.reset();
    const LockGuard lock(m_mutex);
    m_state = State::Closed;
    m_owner = 0;
    return status;
}

std::shared_ptr<Session> Process::CurrentSession() {
    if (IsForked()) {
        return nullptr;
    }
    const LockGuard lock(m_mutex);
    return m_session;
}

std::uint32_t Process::SetOptions(Options options) {
    if (IsForked()) {
        return HAL_BUSY;
    }
    const LockGuard lock(m_mutex);
    if (m_state != State::Closed) {
        return HAL_BUSY;
    }
    std::swap(m_options, options);
    return HAL_OK;
}

std::uint32_t Process::SetDriverFactory(DriverFactory factory) {
    if (IsForked()) {
        return HAL_BUSY;
    }
    if (!factory) {
        factory = &MakeDrivers;
    }
    const LockGuard lock(m_mutex);
    if (m_state != State::Closed) {
        return HAL_BUSY;
    }
    m_makeDrivers.swap(factory);
    return HAL_OK;
}

std::uint32_t Process::SetThreadStarter(ThreadStarter starter) {
    if (IsForked()) {
        return HAL_BUSY;
    }
    if (!starter) {
        starter = &StartThread;
    }
    const LockGuard lock(m_mutex);
    if (m_state != State::Closed) {
        return HAL_BUSY;
    }
    m_startThread.swap(starter);
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform
