// SPDX-License-Identifier: Apache-2.0
// What has come for one command: which datagrams are its acknowledge, and what they say. Pure; whoever waits owns it.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_REPLY_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_REPLY_H

#include <cstdint>
#include <span>

#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/Timings.h"

namespace Nimbrel2::Platform::GigE {

class Reply {
public:
    /// @param acknowledge  What must come: READREG_ACK, WRITEREG_ACK or FORCEIP_ACK.
    /// @param limit        Pending acknowledges are honoured up to here.
    Reply(std::uint16_t id, Gvcp::MessageId acknowledge, TimePoint limit)
        : m_id(id), m_acknowledge(acknowledge), m_limit(limit) {}

    /// One datagram from the camera's address and port. What is not for this command is ignored.
    void Take(std::span<const std::uint8_t> bytes, TimePoint now);

    bool IsAnswered() const { return m_answered; }
    /// The camera is at work, and has asked to be given until then; the epoch when it has not.
    TimePoint GetPendingUntil() const { return m_pendingUntil; }

    /// HAL_OK, what the camera's status is to a caller, HAL_BAD_ANSWER when all that came could not be read, and
    /// HAL_TIMED_OUT when nothing did.
    std::uint32_t GetStatus() const;
    /// READREG: the register; WRITEREG: how many were written.
    std::uint32_t GetValue() const { return m_value; }

private:
    const std::uint16_t m_id;
    const Gvcp::MessageId m_acknowledge;
    const TimePoint m_limit;
    bool m_answered = false;
    bool m_malformed = false;
    TimePoint m_pendingUntil;
    Gvcp::Status m_status{};
    std::uint32_t m_value = 0;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
