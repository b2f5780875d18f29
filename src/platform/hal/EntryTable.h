// SPDX-License-Identifier: Apache-2.0
// What the opaque entries of the HAL stand for. One table a session.
#ifndef NIMBREL2_PLATFORM_HAL_ENTRYTABLE_H
#define NIMBREL2_PLATFORM_HAL_ENTRYTABLE_H

#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <variant>
#include <vector>

#include "hal/HAL.h"
#include "platform/Drivers.h"
#include "platform/base/Mutex.h"

namespace Nimbrel2::Platform {

/// The opaque values that cross the HAL line, entries and registrations: numbers dressed as pointers.
using Handle = std::uintptr_t;

/// A number that this process has never given out: not to another entry, not to a registration, not before the last
/// clean-up. A stale handle is therefore unknown and never somebody else's. Never 0.
Handle NextHandle();

inline void* ToPointer(Handle handle) { return std::bit_cast<void*>(handle); }
inline Handle ToHandle(const void* pointer) { return std::bit_cast<Handle>(pointer); }

/// Which free function takes an entry back.
enum class EntryKind { FireWireCamera, FireWireDevice, UsbCamera, GigECamera };

/// Any thread. Devices are let go of with the lock released: their destructors are a driver's.
class EntryTable {
public:
    using Device =
        std::variant<std::shared_ptr<FireWireDevice>, std::shared_ptr<UsbDevice>, std::shared_ptr<GigEDevice>>;

    /// Makes one entry a device, all or none; entries has room for them. A device may have several entries.
    /// @return HAL_CLOSED after Close. @throws std::bad_alloc
    std::uint32_t Add(EntryKind kind, std::vector<Device> devices, void** entries);

    /// @return HAL_GONE when there is no such entry of that kind.
    std::uint32_t Remove(EntryKind kind, const void* entry);

    /// Finds the device of an entry of that bus.
    /// @param position  Receives the place that the device had in its listing.
    template <class BusDevice>
    std::uint32_t Find(const void* entry, std::shared_ptr<BusDevice>* device, std::uint32_t* position) const {
        const LockGuard lock(m_mutex);
        if (m_closed) {
            return HAL_CLOSED;
        }
        const auto found = m_entries.find(ToHandle(entry));
        if (found == m_entries.end()) {
            return HAL_GONE;
        }
        const auto* held = std::get_if<std::shared_ptr<BusDevice>>(&found->second.device);
        if (held == nullptr) {
            return HAL_GONE;
        }
        *device = *held;
        *position = found->second.position;
        return HAL_OK;
    }

    /// Frees every entry that was never given back. Nothing is found or added afterwards.
    void Close();

private:
    struct Entry {
        EntryKind kind;
        std::uint32_t position;
        Device device;
    };
    using Entries = std::map<Handle, Entry>;

    mutable Mutex m_mutex;  // A leaf: held for one look-up.
    bool m_closed NIMBREL2_GUARDED_BY(m_mutex) = false;
    Entries m_entries NIMBREL2_GUARDED_BY(m_mutex);
};

}  // namespace Nimbrel2::Platform

#endif
