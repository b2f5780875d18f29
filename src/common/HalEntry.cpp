// SPDX-License-Identifier: Apache-2.0
// Counts the operations in flight on an entry. Any thread; a leaf mutex for a few instructions.
#include "common/HalEntry.h"

#include "common/Posix.h"
#include "hal/HAL.h"

namespace Nimbrel2 {

HalEntry::HalEntry(void* entry) noexcept : m_entry(entry), m_forks(CountForks()) {}

bool HalEntry::IsInForkedProcess() const noexcept { return m_forks != CountForks(); }

HalEntry::Use::Use(HalEntry& owner) : m_owner(owner), m_held(owner.IsInForkedProcess()) {
    if (m_held) {
        return;
    }
    const std::lock_guard<std::mutex> lock(owner.m_mutex);
    if (!owner.m_released) {
        ++owner.m_usesInFlight;
        m_held = true;
        m_counted = true;
    }
}

HalEntry::Use::~Use() {
    if (!m_counted || m_owner.IsInForkedProcess()) {
        return;
    }
    FreeFunction free = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_owner.m_mutex);
        if (--m_owner.m_usesInFlight == 0) {
            free = m_owner.m_pendingFree;
            m_owner.m_pendingFree = nullptr;
        }
    }
    if (free != nullptr) {
        free(m_owner.m_entry);
    }
}

std::uint32_t HalEntry::Release(FreeFunction free) {
    if (!IsInForkedProcess()) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_released) {
            return HAL_GONE;
        }
        m_released = true;
        if (m_usesInFlight != 0) {
            m_pendingFree = free;
            return HAL_OK;
        }
    }
    return free(m_entry);
}

}  // namespace Nimbrel2
