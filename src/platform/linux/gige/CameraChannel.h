// SPDX-License-Identifier: Apache-2.0
// The way to one camera's registers: a socket of its own and what its last commands have taught. The socket
// is made at the first command and kept, because whoever holds a camera's control is known to it by address and port.
//
// Whoever has a Command talks to the camera, alone: it sends, and it alone reads the socket. Any thread may begin one.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_CAMERACHANNEL_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_CAMERACHANNEL_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "platform/base/Mutex.h"
#include "platform/base/Random.h"
#include "platform/linux/gige/Presence.h"
#include "platform/linux/gige/UdpSocket.h"

namespace Nimbrel2::Platform::GigE {

class CameraChannel {
public:
    /// Belongs to whoever has the Command.
    struct State {
        std::shared_ptr<UdpSocket> socket;
        CameraPlace place;          ///< that the socket is for
        TimePoint quietUntil;       ///< not asked before
        bool holdsControl = false;  ///< the last write of the control privilege by this application took it
        std::uint16_t lastId = 0;
        std::uint16_t parkedId = 0;  ///< of a request to a mute camera that nobody has waited for; 0 for none
        bool wasLate = false;        ///< it has answered late before, and was mute again after that
    };

    class Command {
    public:
        Command(Command&&) = default;
        Command& operator=(Command&&) = delete;
        ~Command() { End(); }
        void End() {
            if (m_channel) {
                m_channel->End();
            }
            m_channel.reset();
        }
        State* operator->() const { return &m_channel->m_state; }
        explicit operator bool() const { return m_channel != nullptr; }

        /// The id of a new request: never 0, never the last one again.
        std::uint16_t NextId() const;

    private:
        friend class CameraChannel;
        Command() = default;
        explicit Command(std::shared_ptr<CameraChannel> channel) : m_channel(std::move(channel)) {}
        std::shared_ptr<CameraChannel> m_channel;
    };

    explicit CameraChannel(Random random);

    /// Waits until nobody talks to the camera.
    static Command Begin(const std::shared_ptr<CameraChannel>& channel);
    /// Without a wait: false when somebody does.
    static Command TryBegin(const std::shared_ptr<CameraChannel>& channel);

    /// Whether its registers did not answer a listing that waited for them, and have answered nothing since.
    bool IsMute() const { return m_mute; }
    void SetMute(bool mute) { m_mute = mute; }

    /// When the last Command ended.
    TimePoint GetLastUse() const;

private:
    void End();

    mutable Mutex m_mutex;
    ConditionVariable m_ended;
    bool m_taken NIMBREL2_GUARDED_BY(m_mutex) = false;
    TimePoint m_lastUse NIMBREL2_GUARDED_BY(m_mutex);
    std::atomic<bool> m_mute{false};
    State m_state;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
