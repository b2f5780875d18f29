// SPDX-License-Identifier: Apache-2.0
// Request ids of one bus. Any thread; takes its own leaf lock for a few instructions.
#include "platform/linux/gige/RequestIds.h"

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::GigE {

RequestIds::RequestIds(std::uint16_t first) : m_next(first != 0 ? first : 1) {}

std::uint16_t RequestIds::Take() {
    std::lock_guard lock(m_mutex);
    if (m_numOutstanding == 65535) return 0;
    while (m_outstanding[m_next]) m_next = Gvcp::NextRequestId(m_next);
    const std::uint16_t id = m_next;
    m_outstanding[id] = true;
    ++m_numOutstanding;
    m_next = Gvcp::NextRequestId(id);
    return id;
}

void RequestIds::Release(std::uint16_t id) {
    std::lock_guard lock(m_mutex);
    if (id == 0 || !m_outstanding[id]) return;
    m_outstanding[id] = false;
    --m_numOutstanding;
}

}  // namespace Nimbrel2::Platform::GigE
