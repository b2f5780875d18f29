// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_HALENTRY_H
#define NIMBREL2_COMMON_HALENTRY_H

#include <cstdint>
#include <mutex>

#include "hal/Export.h"

namespace Nimbrel2 {

/// A HAL entry that is given back exactly once, and never under an operation that still runs on it.
/// @par Threads  Any.
class HalEntry {
public:
    using FreeFunction = std::uint32_t (*)(void*);

    NIMBREL2_API explicit HalEntry(void* entry) noexcept;
    HalEntry(const HalEntry&) = delete;
    HalEntry& operator=(const HalEntry&) = delete;

    /// Keeps the entry for the length of one operation. Empty once Release has been called. In a forked process it
    /// keeps nothing from being released and takes no lock: there the HAL answers HAL_CLOSED whatever it gets.
    class Use {
    public:
        explicit Use(HalEntry& owner);
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        explicit operator bool() const noexcept { return m_held; }
        void* Get() const noexcept { return m_owner.m_entry; }

    private:
        HalEntry& m_owner;
        bool m_held;
        bool m_counted = false;
    };

    /// Gives the entry back: now, or when the last operation in flight on it ends.
    /// @return what the HAL answered, 0 when that is still to come, HAL_GONE when it was given back before.
    std::uint32_t Release(FreeFunction free);

private:
    bool IsInForkedProcess() const noexcept;

    void* const m_entry;
    const unsigned int m_forks;  // Tells the process that has made this from those forked from it.
    std::mutex m_mutex;          // Leaf: guards the three below, never held during a HAL call.
    unsigned int m_usesInFlight = 0;
    bool m_released = false;
    FreeFunction m_pendingFree = nullptr;
};

}  // namespace Nimbrel2

#endif
