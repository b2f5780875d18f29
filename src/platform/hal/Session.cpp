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
    if (!m_closed) Close();
}

std::uint32_t Session::Start(const std::function<Drivers(const Options&, const BusEventSinks&)>& makeDrivers,
                             const Options& options) {
    m_drivers = makeDrivers(options, {m_fireWireEvents, m_usbEvents, m_gigEEvents});
    if (const std::uint32_t status = Enter("HAL_InitLibrary"); status != HAL_OK) return status;

    // In the place of a driver that is missing or cannot start stands the base class, a bus that has nothing.
    if (!m_drivers.fireWire) m_drivers.fireWire = std::make_unique<FireWireBus>();
    if (!m_drivers.usb) m_drivers.usb = std::make_unique<UsbBus>();
    if (!m_drivers.gigE) m_drivers.gigE = std::make_unique<GigEBus>();

    const std::uint32_t fireWire = m_drivers.fireWire->Start();
    m_fireWireStarted = fireWire == HAL_OK;
    if (fireWire == HAL_OUT_OF_MEMORY) return HAL_OUT_OF_MEMORY;
    if (!m_fireWireStarted) m_drivers.fireWire = std::make_unique<FireWireBus>();

    const std::uint32_t usb = m_drivers.usb->Start();
    m_usbStarted = usb == HAL_OK;
    if (usb == HAL_OUT_OF_MEMORY) return HAL_OUT_OF_MEMORY;
    if (!m_usbStarted) m_drivers.usb = std::make_unique<UsbBus>();

    const std::uint32_t gigE = m_drivers.gigE->Start();
    m_gigEStarted = gigE == HAL_OK;
    if (gigE == HAL_OUT_OF_MEMORY) return HAL_OUT_OF_MEMORY;
    if (!m_gigEStarted) m_drivers.gigE = std::make_unique<GigEBus>(gigE);

    return HAL_OK;
}

void Session::Close() {
    m_closed = true;
    m_fireWireEvents.StopCallbacks();
    m_usbEvents.StopCallbacks();
    m_gigEEvents.StopCallbacks();
    // Before the wait: a callback that is inside a transaction comes back when its driver stops.
    StopDrivers();
    const auto deadline = EventDelivery::Clock::now() + kCallbackGrace;
    m_fireWireEvents.JoinThreads(deadline);
    m_usbEvents.JoinThreads(deadline);
    m_gigEEvents.JoinThreads(deadline);
    m_entries.Close();
}

void Session::StopDrivers() {
    if (std::exchange(m_fireWireStarted, false)) m_drivers.fireWire->Stop();
    if (std::exchange(m_usbStarted, false)) m_drivers.usb->Stop();
    if (std::exchange(m_gigEStarted, false)) m_drivers.gigE->Stop();
}

}  // namespace Nimbrel2::Platform
