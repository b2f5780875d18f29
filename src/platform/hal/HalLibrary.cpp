// SPDX-License-Identifier: Apache-2.0
// What the buses have in common: start and end of the library, listings, the giving back of entries, registration for
// bus events. Run on their caller's thread; a driver may block for bus I/O, and no lock of the glue is held meanwhile.
#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

// ---- Library --------------------------------------------------------------------------------------------------------

uint32_t HAL_InitLibrary(void) {
    return Guarded([]() -> std::uint32_t {
        try {
            return Process::Get().Start();
        } catch (const std::system_error&) {
            return HAL_OUT_OF_MEMORY;  // no thread, no file descriptor
        }
    });
}

uint32_t HAL_CleanupLibrary(void) {
    return Guarded([] { return Process::Get().Stop(); });
}

// ---- Listings -------------------------------------------------------------------------------------------------------

namespace {

template <class Device>
using Found = std::vector<std::shared_ptr<Device>>;

/// Hands out one entry for each of the devices that fit.
template <class Device>
std::uint32_t HandOut(Session& session, EntryKind kind, const Found<Device>& found, std::uint64_t capacity,
                      void** entries, std::uint64_t* count) {
    const auto number = static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(found.size(), capacity));
    std::vector<EntryTable::Device> devices(found.begin(), found.begin() + number);
    const std::uint32_t status = session.Entries().Add(kind, std::move(devices), entries);
    if (status == HAL_OK) {
        *count = static_cast<std::uint64_t>(number);
    }
    return status;
}

/// @param list  Fills a Platform::Listing<Device> and answers a status.
template <class Device, class List>
std::uint32_t ListAndHandOut(Session& session, BusEvents& events, BusEvents::Listing kindOfListing, EntryKind kind,
                             void** entries, std::uint64_t* count, const List& list) {
    BusEvents::ListingInProgress inProgress(events, kindOfListing);
    Listing<Device> listing;
    std::uint32_t status = list(&listing);
    if (status == HAL_OK) {
        status = HandOut(session, kind, listing.devices, *count, entries, count);
    }
    if (status == HAL_OK) {
        inProgress.Succeeded(std::move(listing.state));
    }
    return status;
}

std::uint32_t GiveBack(const char* function, EntryKind kind, void* entry) {
    return InSession(function, entry != nullptr,
                     [&](Session& session) { return session.Entries().Remove(kind, entry); });
}

}  // namespace

uint32_t HAL_1394GetCameras(void** entries, uint64_t* count) {
    return InSession(__func__, entries != nullptr && count != nullptr, [&](Session& session) {
        return ListAndHandOut<FireWireDevice>(session, session.FireWireEvents(), BusEvents::Listing::Cameras,
                                              EntryKind::FireWireCamera, entries, count,
                                              [&](auto* listing) { return session.FireWire().ListCameras(listing); });
    });
}

uint32_t HAL_1394GetVirtualCameras(void** entries, const uint64_t* serialNumbers, uint64_t* count) {
    constexpr std::uint64_t capacity = 256;
    const bool good = entries != nullptr && count != nullptr && (serialNumbers != nullptr || *count == 0);
    return InSession(__func__, good, [&](Session& session) {
        const std::vector<std::uint64_t> taken(serialNumbers, serialNumbers + *count);
        Found<FireWireDevice> found;
        const std::uint32_t status = session.FireWire().ListVirtualCameras(taken, &found);
        if (status != HAL_OK) {
            return status;
        }
        return HandOut(session, EntryKind::FireWireCamera, found, capacity, entries, count);
    });
}

uint32_t HAL_1394GetDevices(void** entries, uint64_t* count) {
    return InSession(__func__, entries != nullptr && count != nullptr, [&](Session& session) {
        return ListAndHandOut<FireWireDevice>(session, session.FireWireEvents(), BusEvents::Listing::Devices,
                                              EntryKind::FireWireDevice, entries, count,
                                              [&](auto* listing) { return session.FireWire().ListDevices(listing); });
    });
}

uint32_t HAL_UsbGetCameras(void** entries, uint64_t* count) {
    return InSession(__func__, entries != nullptr && count != nullptr, [&](Session& session) {
        return ListAndHandOut<UsbDevice>(session, session.UsbEvents(), BusEvents::Listing::Cameras,
                                         EntryKind::UsbCamera, entries, count,
                                         [&](auto* listing) { return session.Usb().ListCameras(listing); });
    });
}

uint32_t HAL_GigEGetCameras(void** entries, uint64_t* count) {
    return InSession(__func__, entries != nullptr && count != nullptr, [&](Session& session) {
        return ListAndHandOut<GigEDevice>(session, session.GigEEvents(), BusEvents::Listing::Cameras,
                                          EntryKind::GigECamera, entries, count,
                                          [&](auto* listing) { return session.GigE().ListCameras(listing); });
    });
}

uint32_t HAL_1394FreeCamera(void* entry) { return GiveBack(__func__, EntryKind::FireWireCamera, entry); }
uint32_t HAL_1394FreeDevice(void* entry) { return GiveBack(__func__, EntryKind::FireWireDevice, entry); }
uint32_t HAL_UsbFreeCamera(void* entry) { return GiveBack(__func__, EntryKind::UsbCamera, entry); }
uint32_t HAL_GigEFreeCamera(void* entry) { return GiveBack(__func__, EntryKind::GigECamera, entry); }

// ---- Registration for bus events; never waits for a callback --------------------------------------------------------

namespace {

using EventsOfBus = BusEvents& (Session::*)();

std::uint32_t Register(const char* function, EventsOfBus events, void** registration, HALBusEventFunction callback,
                       void* context) {
    // Whatever happens, the caller is left with nothing that looks like a registration but is none.
    if (registration != nullptr) {
        *registration = nullptr;
    }
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
