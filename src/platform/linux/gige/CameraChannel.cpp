// SPDX-License-Identifier: Apache-2.0
// The way to one camera's registers. Any thread; m_mutex for a few instructions.
#include "platform/linux/gige/CameraChannel.h"

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::GigE {

CameraChannel::CameraChannel(Random random) : m_lastUse(Clock::now()) {
    m_state.lastId = static_cast<std::uint16_t>(1 + random.Below(65535));
}

CameraChannel::Command CameraChannel::Begin(const std::shared_ptr<CameraChannel>& channel) {
    CameraChannel& self = *channel;
    UniqueLock lock(self.m_mutex);
    self.m_ended.Wait(lock, [&self]() NIMBREL2_REQUIRES(self.m_mutex) { return !self.m_taken; });
    self.m_taken = true;
    return Command(channel);
}

CameraChannel::Command CameraChannel::TryBegin(const std::shared_ptr<CameraChannel>& channel) {
    const LockGuard lock(channel->m_mutex);
    if (channel->m_taken) {
        return Command();
    }
    channel->m_taken = true;
    return Command(channel);
}

void CameraChannel::End() {
    const LockGuard lock(m_mutex);
    m_taken = false;
    m_lastUse = Clock::now();
    m_ended.NotifyOne();
}

TimePoint CameraChannel::GetLastUse() const {
    const LockGuard lock(m_mutex);
    return m_taken ? Clock::now() : m_lastUse;
}

std::uint16_t CameraChannel::Command::NextId() const {
    State& state = m_channel->m_state;
    state.lastId = Gvcp::NextRequestId(state.lastId);
    return state.lastId;
}

}  // namespace Nimbrel2::Platform::GigE
