// SPDX-License-Identifier: Apache-2.0
// A monitor's thread. Runs the turns on it; takes no lock.
#include "platform/base/MonitorThread.h"

#include <chrono>
#include <new>
#include <system_error>
#include <utility>

#include "hal/HAL.h"
#include "platform/base/Errno.h"

namespace Nimbrel2::Platform {

namespace {
// Long enough for others to give memory back, short enough for nobody to notice.
constexpr std::chrono::milliseconds OutOfMemoryPause{5};
}  // namespace

std::uint32_t MonitorThread::Open() { return StatusOfErrno(m_poller.Open()); }

std::uint32_t MonitorThread::Start(const char* name, std::function<void()> turn, const ThreadStarter& startThread) {
    m_stopping = false;
    try {
        m_thread = startThread(name, [this, turn = std::move(turn)] {
            m_id = std::this_thread::get_id();
            while (!m_stopping) {
                try {
                    turn();
                } catch (const std::bad_alloc&) {
                    std::this_thread::sleep_for(OutOfMemoryPause);
                }
            }
            m_id = std::thread::id();
        });
    } catch (const std::system_error&) {
        return HAL_OUT_OF_MEMORY;
    }
    return HAL_OK;
}

void MonitorThread::Stop() {
    m_stopping = true;
    if (!m_thread.joinable()) {
        return;
    }
    m_poller.Wake();
    m_thread.join();
}

}  // namespace Nimbrel2::Platform
