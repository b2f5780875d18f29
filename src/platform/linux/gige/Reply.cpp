// SPDX-License-Identifier: Apache-2.0
// What has come for one command. Pure.
#include "platform/linux/gige/Reply.h"

#include <algorithm>
#include <variant>

#include "hal/HAL.h"

namespace Nimbrel2::Platform::GigE {

void Reply::Take(std::span<const std::uint8_t> bytes, TimePoint now) {
    const Gvcp::DecodedAcknowledge acknowledge = Gvcp::DecodeAcknowledge(bytes);
    if (acknowledge.error == Gvcp::DecodeError::TooShort || acknowledge.error == Gvcp::DecodeError::NotAnAcknowledge) {
        return;
    }
    if (m_answered || acknowledge.header.ackId != m_id) {
        return;
    }
    if (const auto* pending = std::get_if<Gvcp::PendingAcknowledge>(&acknowledge.body)) {
        m_pendingUntil = std::min(now + Milliseconds(pending->timeToCompletion), m_limit);
        return;
    }
    if (acknowledge.header.id != m_acknowledge) {
        return;
    }
    m_malformed = true;
    if (acknowledge.error != Gvcp::DecodeError::None) {
        return;
    }
    if (const auto* read = std::get_if<Gvcp::ReadRegAcknowledge>(&acknowledge.body)) {
        if (read->values.GetCount() != 1) {
            return;
        }
        m_value = read->values[0];
    } else if (const auto* write = std::get_if<Gvcp::WriteRegAcknowledge>(&acknowledge.body)) {
        m_value = write->index;
    } else if (!std::holds_alternative<Gvcp::ErrorAcknowledge>(acknowledge.body) &&
               !std::holds_alternative<Gvcp::ForceIpAcknowledge>(acknowledge.body)) {
        return;
    }
    m_status = acknowledge.header.status;
    m_answered = true;
}

std::uint32_t Reply::GetStatus() const {
    if (m_answered) {
        return Gvcp::ToHalStatus(m_status);
    }
    return m_malformed ? HAL_BAD_ANSWER : HAL_TIMED_OUT;
}

}  // namespace Nimbrel2::Platform::GigE
