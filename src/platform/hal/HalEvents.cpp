// SPDX-License-Identifier: Apache-2.0
// Registration for bus events. Run on their caller's thread; never wait for a callback.
#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

namespace {

using EventsOfBus = BusEvents& (Session::*)();

std::uint32_t Register(const char* function, EventsOfBus events, void** registration, HALBusEventFunction callback,
                       void* context) {
    // Whatever happens, the caller is left with nothing that looks like a registration but is none.
    if (registration != nullptr) *registration = nullptr;
    return InSession(function, registration != nullptr && callback != nullptr,
                     [&](Session& session) { return (session.*events)().Register(callback, context, registration); });
}

std::uint32_t Deregister(const char* function, EventsOfBus events, void* registration) {
    return InSession(function, registration != nullptr,
                     [&](Session& session) { return (session.*events)().Deregister(registration); });
}

}  // namespace

uint32_t HAL_1394RegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    return Register(__func__, &Session::FireWireEvents, registration, function, context);
}

uint32_t HAL_UsbRegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    return Register(__func__, &Session::UsbEvents, registration, function, context);
}

uint32_t HAL_GigERegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    return Register(__func__, &Session::GigEEvents, registration, function, context);
}

uint32_t HAL_1394DeregisterBusEvents(void* registration) {
    return Deregister(__func__, &Session::FireWireEvents, registration);
}
uint32_t HAL_UsbDeregisterBusEvents(void* registration) {
    return Deregister(__func__, &Session::UsbEvents, registration);
}
uint32_t HAL_GigEDeregisterBusEvents(void* registration) {
    return Deregister(__func__, &Session::GigEEvents, registration);
}

bool Nimbrel2::Platform::WaitUntilEventsAreDelivered(std::chrono::milliseconds time) {
    const auto deadline = EventDelivery::Clock::now() + time;
    const std::shared_ptr<Session> session = Process::Get().CurrentSession();
    return session != nullptr && session->FireWireEvents().WaitUntilDelivered(deadline) &&
           session->UsbEvents().WaitUntilDelivered(deadline) && session->GigEEvents().WaitUntilDelivered(deadline);
}
