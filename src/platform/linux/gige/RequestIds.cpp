// SPDX-License-Identifier: Apache-2.0
// Request ids of one bus. Any thread; takes its own leaf lock for a few instructions.
#include "platform/linux/gige/RequestIds.h"

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::GigE {

std::uint16_t RequestIds::Take() {
    const LockGuard lock(m_mutex);
    if (m_numOutstanding == 65535) {
        return 0;
    }
    auto id = static_cast<std::uint16_t>(1 + m_random.Below(65535));
    while (m_outstanding[id]) {
        id = Gvcp::NextRequestId(id);
    }
    m_outstanding[id] = true;
    ++m_numOutstanding;
    return id;
}

void RequestIds::Release(std::uint16_t id) {
    const LockGuard lock(m_mutex);
    if (id == 0 || !m_outstanding[id]) {
        return;
    }
    m_outstanding[id] = false;
    --m_numOutstanding;
}

}  // namespace Nimbrel2::Platform::GigE
