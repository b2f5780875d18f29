// SPDX-License-Identifier: Apache-2.0
// How many unverified answers are taken from one sender in one second: a camera answers for itself, and a host full of
// simulated ones for some hundreds. What a flood sends beyond that costs next to nothing, and takes nothing from other
// senders. No lock and no clock: the owner brings both.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_UNVERIFIEDBUDGET_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_UNVERIFIEDBUDGET_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/linux/gige/Timings.h"

namespace Nimbrel2::Platform::GigE {

class UnverifiedBudget {
public:
    static constexpr std::uint32_t PerPeriod = 512;
    static constexpr Milliseconds Period{1000};

    /// Whether one more is taken from that sender now.
    bool Take(std::uint32_t sender, TimePoint now) {
        if (now - m_begin >= Period) {
            m_begin = now;
            m_taken.fill(0);
        }
        // Senders share counters where they must: no number of them takes more memory.
        std::uint32_t& taken = m_taken[(sender * 0x9E3779B1u) >> 22];
        if (taken >= PerPeriod) {
            return false;
        }
        ++taken;
        return true;
    }

private:
    TimePoint m_begin;
    std::array<std::uint32_t, 1024> m_taken{};
};

}  // namespace Nimbrel2::Platform::GigE

#endif
