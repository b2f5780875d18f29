// SPDX-License-Identifier: Apache-2.0
// Request ids of one bus: never 0, and never one that is still outstanding.
// Any thread; its own lock is a leaf, held for a few instructions.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_REQUESTIDS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_REQUESTIDS_H

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace Nimbrel2::Platform::GigE {

class RequestIds {
public:
    /// @param first  The first id handed out; 0 counts as 1. Take it at random, so that nobody can guess what is asked.
    explicit RequestIds(std::uint16_t first);

    /// An id that is not outstanding; 0 when all 65535 are.
    std::uint16_t Take();

    /// The request of that id has ended: what still answers it comes late. 0 is ignored.
    void Release(std::uint16_t id);

private:
    std::mutex m_mutex;
    std::bitset<65536> m_outstanding;
    std::size_t m_numOutstanding = 0;
    std::uint16_t m_next;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
