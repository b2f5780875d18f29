// SPDX-License-Identifier: Apache-2.0
// Start and end of a session. Runs on the threads that call HAL_InitLibrary and HAL_CleanupLibrary, and on the one
// whose call ends last. Takes no lock of its own.
#include "platform/hal/Session.h"

#include <memory>
#include <utility>

namespace Nimbrel2::Platform {

Session::Session(const ThreadStarter& startThread)
    : m_fireWireEvents(HAL_INTERFACE_1394, startThread),
      m_usbEvents(HAL_INTERFACE_USB, startThread),
      m_gigEEvents(HAL_INTERFACE_GIGE, startThread) {}

Session::~Session() {
    if (!m_closed) {
        Close();
    }
}

std::uint32_t Session::Start(const std::function<Drivers(const Options&, const BusEventSinks&)>& makeDrivers,
                             const Options& options) {
    m_drivers = makeDrivers(options, {m_fireWireEvents, m_usbEvents, m_gigEEvents});
    if (const std::uint32_t status = Enter("HAL_InitLibrary"); status != HAL_OK) {
        return status;
    }

    const auto emptyFireWire = [](std::uint32_t) { return std::make_unique<FireWireBus>(); };
    const auto emptyUsb = [](std::uint32_t) { return std::make_unique<UsbBus>(); };
    const auto emptyGigE = [](std::uint32_t reason) { return std::make_unique<GigEBus>(reason); };
    std::uint32_t status = StartDriver(HAL_INTERFACE_1394, options.fireWire, &m_drivers.fireWire, emptyFireWire);
    if (status == HAL_OK) {
        status = StartDriver(HAL_INTERFACE_USB, options.usb, &m_drivers.usb, emptyUsb);
    }
    if (status == HAL_OK) {
        status = StartDriver(HAL_INTERFACE_GIGE, options.gigE, &m_drivers.gigE, emptyGigE);
    }
    return status;
}

// In place of a driver that is missing or cannot start stands the base class, a bus that has nothing.
template <class Bus, class MakeEmpty>
std::uint32_t Session::StartDriver(HALInterfaceType bus, Driver choice, std::unique_ptr<Bus>* driver,
                                   const MakeEmpty& makeEmpty) {
    if (!*driver) {
        m_support[bus] = choice == Driver::None ? HAL_NO_BUS : HAL_NOT_SUPPORTED;
        *driver = makeEmpty(HAL_NO_BUS);
        return HAL_OK;
    }
    m_support[bus] = (*driver)->Start();
    if (m_support[bus] == HAL_OUT_OF_MEMORY) {
        return HAL_OUT_OF_MEMORY;
    }
    if (!IsStarted(bus)) {
        *driver = makeEmpty(m_support[bus]);
    }
    return HAL_OK;
}

void Session::Close() {
    m_closed = true;
    m_fireWireEvents.StopCallbacks();
    m_usbEvents.StopCallbacks();
    m_gigEEvents.StopCallbacks();
    // Before the wait: a callback that is inside a transaction comes back when its driver stops.
    StopDrivers();
    const auto deadline = EventDelivery::Clock::now() + CallbackGrace;
    m_fireWireEvents.JoinThreads(deadline);
    m_usbEvents.JoinThreads(deadline);
    m_gigEEvents.JoinThreads(deadline);
    m_entries.Close();
}

void Session::StopDrivers() {
    if (IsStarted(HAL_INTERFACE_1394)) {
        m_drivers.fireWire->Stop();
    }
    if (IsStarted(HAL_INTERFACE_USB)) {
        m_drivers.usb->Stop();
    }
    if (IsStarted(HAL_INTERFACE_GIGE)) {
        m_drivers.gigE->Stop();
    }
}

}  // namespace Nimbrel2::Platform
