// SPDX-License-Identifier: Apache-2.0
// What the USB bus, its monitor thread and its camera entries share. One class, several files: CoreMonitor,
// CoreListing, CoreRegisters, CorePort, CoreDiagnosis.
//
// Threads: one monitor thread from Start to Stop; any user threads. Lock order, outermost first:
//   RegisterChannel::mutex   one access to one camera at a time, held while the camera answers
//   UsbCore::m_mutex         what is known of the buses and what was reported; held while sysfs is read, never while a
//                            device is asked
//   UsbContext, the event sink   leaves
#ifndef NIMBREL2_PLATFORM_LINUX_USB_USBCORE_H
#define NIMBREL2_PLATFORM_LINUX_USB_USBCORE_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/Drivers.h"
#include "platform/base/MonitorThread.h"
#include "platform/base/Mutex.h"
#include "platform/base/Uevents.h"
#include "platform/linux/usb/DeviceRecord.h"
#include "platform/linux/usb/LinuxUsbBus.h"
#include "platform/linux/usb/OpenDevice.h"
#include "platform/linux/usb/RegisterChannel.h"
#include "platform/linux/usb/Scan.h"
#include "platform/linux/usb/Timings.h"
#include "platform/linux/usb/Tree.h"

namespace Nimbrel2::Platform::Usb {

/// What tells a camera from all others: ids and serial text, and its place when there is no such text or another camera
/// has it too.
struct CameraKey {
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::string serial;

    auto operator<=>(const CameraKey&) const = default;
};

struct CameraPlace {
    std::string controller;
    bool superSpeed = false;  ///< in which half of the controller; its ports are other ones
    std::vector<std::uint8_t> ports;

    bool operator==(const CameraPlace&) const = default;
};

/// A camera as an entry names it.
struct NamedCamera {
    CameraKey key;
    CameraPlace place;  ///< where it was found last
};

inline CameraKey KeyOf(const DeviceRecord& device) {
    return {device.descriptors.vendorId, device.descriptors.productId, device.texts.serial};
}
inline CameraPlace PlaceOf(const DeviceRecord& device) {
    return {device.controller, device.speed >= SuperSpeed, device.ports};
}

class UsbCore {
public:
    UsbCore(LinuxUsbOptions options, const Timings& timings, BusEventSink& events);
    ~UsbCore();
    UsbCore(const UsbCore&) = delete;
    UsbCore& operator=(const UsbCore&) = delete;

    // The bus. Each as Drivers.h states it.
    std::uint32_t Start() NIMBREL2_EXCLUDES(m_mutex);
    void Stop() NIMBREL2_EXCLUDES(m_mutex);
    /// @param cameras  One per camera, in the order of a listing.
    std::uint32_t ListCameras(std::vector<DevicePointer>* cameras, BusState* state) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t Diagnose(UsbDiagnosis* diagnosis) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t Describe(std::vector<BusMap>* maps) NIMBREL2_EXCLUDES(m_mutex);

    // One camera, found anew at each call.
    /// As the last look at the buses has it.
    /// @param camera  Its place is brought up to date. @return HAL_GONE when it is not attached.
    std::uint32_t FindCamera(NamedCamera* camera, DevicePointer* device) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t GetTree(NamedCamera* camera, std::vector<UsbSelfId>* records, std::uint32_t* deviceId,
                          std::uint64_t* hostKey, std::uint32_t* generation) NIMBREL2_EXCLUDES(m_mutex);
    // The next ones ask the camera or the hub above it.
    std::uint32_t ReadRegister(NamedCamera* camera, std::uint64_t address, std::uint32_t* value)
        NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t WriteRegister(NamedCamera* camera, std::uint64_t address, std::uint32_t value)
        NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t GetPortStatus(NamedCamera* camera, std::uint32_t* status) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t Reset(NamedCamera* camera) NIMBREL2_EXCLUDES(m_mutex);

    bool IsClosed() const { return m_stopping; }

private:
    struct Tree {
        TreeRecords records;
        std::uint32_t generation = 0;
    };

    // CoreMonitor.cpp
    void MonitorTurn() NIMBREL2_EXCLUDES(m_mutex);
    TimePoint NextLook() const NIMBREL2_REQUIRES(m_mutex);
    /// Of the burst that no look has followed yet.
    TimePoint BurstEnd() const NIMBREL2_REQUIRES(m_mutex);
    /// Takes the waiting uevents off the socket.
    void TakeEvents() NIMBREL2_REQUIRES(m_mutex);
    /// Looks at the buses now and reports what has changed. @return 0 or the errno that kept it from looking.
    int Look() NIMBREL2_REQUIRES(m_mutex);
    /// The same, unless nothing can have changed since the last look.
    int LookIfDue() NIMBREL2_REQUIRES(m_mutex);
    void UpdateTrees() NIMBREL2_REQUIRES(m_mutex);
    void FindAmbiguousKeys() NIMBREL2_REQUIRES(m_mutex);
    BusState MakeState() NIMBREL2_REQUIRES(m_mutex);
    void Trace(const std::string& text) const;

    // CoreListing.cpp
    DevicePointer FindAttached(NamedCamera* camera) const NIMBREL2_REQUIRES(m_mutex);

    // CoreRegisters.cpp
    std::uint32_t FindNow(NamedCamera* camera, DevicePointer* device) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t OpenCamera(NamedCamera* camera, DevicePointer* device, OpenDevice* open) NIMBREL2_EXCLUDES(m_mutex);
    bool MayOpenSoon(const DeviceRecord& device) const;
    /// Calls access(channel, open, device) with the camera open and its channel locked; the file is closed after that.
    template <class Access>
    std::uint32_t OnOpenCamera(NamedCamera* camera, const Access& access) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t GoneIfItLeft(NamedCamera* camera, std::uint32_t status) NIMBREL2_EXCLUDES(m_mutex);
    static bool IsUdevRunning();
    std::shared_ptr<RegisterChannel> FindChannel(const CameraKey& key) NIMBREL2_EXCLUDES(m_mutex);

    // CorePort.cpp
    std::uint32_t AskHub(const DeviceRecord& hub, std::uint8_t port, std::uint32_t* status);
    DevicePointer FindHubAbove(const DeviceRecord& device) const NIMBREL2_EXCLUDES(m_mutex);

    const LinuxUsbOptions m_options;
    const Timings m_timings;
    BusEventSink& m_events;
    UsbContext m_context;
    MonitorThread m_monitor;
    std::atomic<bool> m_stopping{false};

    mutable Mutex m_mutex;  ///< guards all below
    bool m_running NIMBREL2_GUARDED_BY(m_mutex) = false;
    Scanner m_scanner NIMBREL2_GUARDED_BY(m_mutex);
    UeventSocket m_uevents NIMBREL2_GUARDED_BY(m_mutex);
    int m_ueventError NIMBREL2_GUARDED_BY(m_mutex) = 0;        ///< errno of the socket
    bool m_hearsUevents NIMBREL2_GUARDED_BY(m_mutex) = false;  ///< else it looks now and then
    bool m_lookIsDue NIMBREL2_GUARDED_BY(m_mutex) = false;
    TimePoint m_burstStart NIMBREL2_GUARDED_BY(m_mutex);  ///< of the events that no look has followed yet
    TimePoint m_lastEvent NIMBREL2_GUARDED_BY(m_mutex);
    TimePoint m_lastLook NIMBREL2_GUARDED_BY(m_mutex);
    int m_lookError NIMBREL2_GUARDED_BY(m_mutex) = 0;  ///< errno of the last look
    std::vector<DevicePointer> m_devices NIMBREL2_GUARDED_BY(m_mutex);
    /// Of cameras that were seen at the same time: none of them is known by its text any more.
    std::set<CameraKey> m_ambiguous NIMBREL2_GUARDED_BY(m_mutex);
    /// Those that are seen twice now, and since when. In the two halves of one controller that may be one camera, which
    /// has fallen back to USB 2 before the kernel has given up its SuperSpeed link.
    std::map<CameraKey, TimePoint> m_doubled NIMBREL2_GUARDED_BY(m_mutex);
    std::map<std::uint64_t, Tree> m_trees NIMBREL2_GUARDED_BY(m_mutex);  ///< by host key
    std::uint32_t m_lastGeneration NIMBREL2_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_resets NIMBREL2_GUARDED_BY(m_mutex) = 0;
    /// What each listed camera is reported as, by its device: as long as that stays, so does this.
    std::map<DevicePointer, PresentDevice> m_reported NIMBREL2_GUARDED_BY(m_mutex);
    std::map<CameraKey, std::shared_ptr<RegisterChannel>> m_channels NIMBREL2_GUARDED_BY(m_mutex);
};

}  // namespace Nimbrel2::Platform::Usb

#endif
