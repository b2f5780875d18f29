// SPDX-License-Identifier: Apache-2.0
// Adding and removing entries. Any thread; takes the table's own mutex for one look-up or one merge.
#include "platform/hal/EntryTable.h"

#include <atomic>
#include <utility>

namespace Nimbrel2::Platform {

static_assert(sizeof(Handle) == 8, "a counter of 32 bits could come round and give a handle twice");

Handle NextHandle() {
    static constinit std::atomic<Handle> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint32_t EntryTable::Add(EntryKind kind, std::vector<Device> devices, void** entries) {
    Entries fresh;
    std::uint32_t position = 0;
    for (Device& device : devices) {
        fresh.emplace(NextHandle(), Entry{kind, position++, std::move(device)});
    }

    const LockGuard lock(m_mutex);
    if (m_closed) {
        return HAL_CLOSED;
    }
    // Handles grow, so the map's order is the listing's.
    for (const auto& [handle, entry] : fresh) {
        *entries++ = ToPointer(handle);
    }
    m_entries.merge(fresh);
    return HAL_OK;
}

std::uint32_t EntryTable::Remove(EntryKind kind, const void* entry) {
    Entries::node_type removed;
    const LockGuard lock(m_mutex);
    if (m_closed) {
        return HAL_CLOSED;
    }
    const auto found = m_entries.find(ToHandle(entry));
    if (found == m_entries.end() || found->second.kind != kind) {
        return HAL_GONE;
    }
    removed = m_entries.extract(found);
    return HAL_OK;
}

void EntryTable::Close() {
    Entries all;
    const LockGuard lock(m_mutex);
    m_closed = true;
    all.swap(m_entries);
}

}  // namespace Nimbrel2::Platform
