// SPDX-License-Identifier: Apache-2.0
// Listings and the giving back of entries. Run on their caller's thread; the driver may block for bus I/O, no lock of
// the glue is held meanwhile.
#include <algorithm>
#include <utility>
#include <vector>

#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

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
    if (status == HAL_OK) *count = static_cast<std::uint64_t>(number);
    return status;
}

/// @param list  Fills a Found<Device> and answers a status.
template <class Device, class List>
std::uint32_t ListAndHandOut(Session& session, BusEvents& events, BusEvents::Listing listing, EntryKind kind,
                             void** entries, std::uint64_t* count, const List& list) {
    const std::uint64_t changesAtBegin = events.BeginListing();
    Found<Device> found;
    std::uint32_t status = list(&found);
    if (status == HAL_OK) status = HandOut(session, kind, found, *count, entries, count);
    if (status == HAL_OK) events.EndListing(listing, changesAtBegin);
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
                                              [&](auto* found) { return session.FireWire().ListCameras(found); });
    });
}

uint32_t HAL_1394GetVirtualCameras(void** entries, const uint64_t* serialNumbers, uint64_t* count) {
    constexpr std::uint64_t capacity = 256;
    const bool good = entries != nullptr && count != nullptr && (serialNumbers != nullptr || *count == 0);
    return InSession(__func__, good, [&](Session& session) {
        const std::vector<std::uint64_t> taken(serialNumbers, serialNumbers + *count);
        Found<FireWireDevice> found;
        const std::uint32_t status = session.FireWire().ListVirtualCameras(taken, &found);
        if (status != HAL_OK) return status;
        return HandOut(session, EntryKind::FireWireCamera, found, capacity, entries, count);
    });
}

uint32_t HAL_1394GetDevices(void** entries, uint64_t* count) {
    return InSession(__func__, entries != nullptr && count != nullptr, [&](Session& session) {
        return ListAndHandOut<FireWireDevice>(session, session.FireWireEvents(), BusEvents::Listing::Devices,
                                              EntryKind::FireWireDevice, entries, count,
                                              [&](auto* found) { return session.FireWire().ListDevices(found); });
    });
}

uint32_t HAL_UsbGetCameras(void** entries, uint64_t* count) {
    return InSession(__func__, entries != nullptr && count != nullptr, [&](Session& session) {
        return ListAndHandOut<UsbDevice>(session, session.UsbEvents(), BusEvents::Listing::Cameras,
                                         EntryKind::UsbCamera, entries, count,
                                         [&](auto* found) { return session.Usb().ListCameras(found); });
    });
}

uint32_t HAL_GigEGetCameras(void** entries, uint64_t* count) {
    return InSession(__func__, entries != nullptr && count != nullptr, [&](Session& session) {
        return ListAndHandOut<GigEDevice>(session, session.GigEEvents(), BusEvents::Listing::Cameras,
                                          EntryKind::GigECamera, entries, count,
                                          [&](auto* found) { return session.GigE().ListCameras(found); });
    });
}

uint32_t HAL_1394FreeCamera(void* entry) { return GiveBack(__func__, EntryKind::FireWireCamera, entry); }
uint32_t HAL_1394FreeDevice(void* entry) { return GiveBack(__func__, EntryKind::FireWireDevice, entry); }
uint32_t HAL_UsbFreeCamera(void* entry) { return GiveBack(__func__, EntryKind::UsbCamera, entry); }
uint32_t HAL_GigEFreeCamera(void* entry) { return GiveBack(__func__, EntryKind::GigECamera, entry); }
