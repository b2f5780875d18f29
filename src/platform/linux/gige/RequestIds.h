// SPDX-License-Identifier: Apache-2.0
// Request ids of one bus: never 0, never one that is still outstanding, and none that could be foreseen.
// Any thread; its own lock is a leaf, held for a few instructions.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_REQUESTIDS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_REQUESTIDS_H

#include <bitset>
#include <cstddef>
#include <cstdint>

#include "platform/base/Mutex.h"
#include "platform/base/Random.h"

namespace Nimbrel2::Platform::GigE {

class RequestIds {
public:
    /// @param random  Where ids come from. Whoever sees some of them must not know the next ones.
    explicit RequestIds(Random random) : m_random(random) {}

    /// An id that is not outstanding; 0 when all 65535 are.
    std::uint16_t Take();

    /// The request of that id has ended: what still answers it comes late. 0 is ignored.
    void Release(std::uint16_t id);

private:
    Mutex m_mutex;
    Random m_random NIMBREL2_GUARDED_BY(m_mutex);
    std::bitset<65536> m_outstanding NIMBREL2_GUARDED_BY(m_mutex);
    std::size_t m_numOutstanding NIMBREL2_GUARDED_BY(m_mutex) = 0;
};

/// One id for the length of a scope; 0 when all are outstanding.
class RequestId {
public:
    explicit RequestId(RequestIds& ids) : m_ids(ids), m_id(ids.Take()) {}
    ~RequestId() { m_ids.Release(m_id); }
    RequestId(const RequestId&) = delete;
    RequestId& operator=(const RequestId&) = delete;

    std::uint16_t Get() const { return m_id; }

private:
    RequestIds& m_ids;
    const std::uint16_t m_id;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
