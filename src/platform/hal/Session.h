// SPDX-License-Identifier: Apache-2.0
// All that lives from HAL_InitLibrary to HAL_CleanupLibrary, in one object.
#ifndef NIMBREL2_PLATFORM_HAL_SESSION_H
#define NIMBREL2_PLATFORM_HAL_SESSION_H

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/Drivers.h"
#include "platform/Platform.h"
#include "platform/hal/BusEvents.h"
#include "platform/hal/EntryTable.h"

namespace Nimbrel2::Platform {

/// Every HAL call holds the session while it runs, so a clean-up in the middle of one closes the session under it but
/// frees nothing that it uses. The last holder frees it: HAL_CleanupLibrary, or the call in flight that ends last.
/// @par Threads  Any, between Start and the end of the object.
class Session {
public:
    /// How long Close waits for event callbacks in flight, all buses together.
    static constexpr std::chrono::seconds CallbackGrace{1};

    explicit Session(const ThreadStarter& startThread);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Makes the drivers and starts them, once. One that cannot start for want of anything but memory is replaced by a
    /// bus that has nothing. @return HAL_OK or HAL_OUT_OF_MEMORY. @throws what the factory throws.
    std::uint32_t Start(const std::function<Drivers(const Options&, const BusEventSinks&)>& makeDrivers,
                        const Options& options);

    /// Ends callbacks, drivers and entries, in this order. Once; the destructor does it for a session that was not
    /// closed.
    void Close();

    /// What a HAL function does first: not HAL_OK is its answer. May wait.
    std::uint32_t Enter(const char* function) const {
        return m_drivers.enter ? m_drivers.enter(function) : static_cast<std::uint32_t>(HAL_OK);
    }

    EntryTable& Entries() { return m_entries; }
    BusEvents& FireWireEvents() { return m_fireWireEvents; }
    BusEvents& UsbEvents() { return m_usbEvents; }
    BusEvents& GigEEvents() { return m_gigEEvents; }
    FireWireBus& FireWire() { return *m_drivers.fireWire; }
    UsbBus& Usb() { return *m_drivers.usb; }
    GigEBus& GigE() { return *m_drivers.gigE; }

    /// As GetBusSupport in Diagnostics.h.
    std::uint32_t GetSupport(HALInterfaceType bus) const { return m_support[bus]; }

private:
    /// @return HAL_OUT_OF_MEMORY when the whole start must fail, HAL_OK otherwise.
    template <class Bus, class MakeEmpty>
    std::uint32_t StartDriver(HALInterfaceType bus, Driver choice, std::unique_ptr<Bus>* driver,
                              const MakeEmpty& makeEmpty);
    void StopDrivers();
    bool IsStarted(HALInterfaceType bus) const { return m_support[bus] == HAL_OK; }

    // The sinks stand before the drivers that raise events into them, and so outlive them.
    BusEvents m_fireWireEvents;
    BusEvents m_usbEvents;
    BusEvents m_gigEEvents;
    Drivers m_drivers;
    EntryTable m_entries;

    // Written by Start and Close, which nothing overlaps.
    std::array<std::uint32_t, 3> m_support{HAL_CLOSED, HAL_CLOSED, HAL_CLOSED};  ///< By HALInterfaceType.
    bool m_closed = false;
};

}  // namespace Nimbrel2::Platform

#endif
