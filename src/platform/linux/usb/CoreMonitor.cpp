// SPDX-License-Identifier: Apache-2.0
// The monitor: hears uevents, looks at the buses after each burst of them, and reports what has changed. The looks of
// other threads are here too. m_mutex is held for each step and never while the monitor waits.
#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>

#include "platform/linux/usb/UsbCore.h"

namespace Nimbrel2::Platform::Usb {

namespace {

constexpr std::uint64_t UeventToken = 0;
constexpr char Subsystem[] = "usb";  // devices and their interfaces

bool AreInBothHalves(const DeviceRecord& a, const DeviceRecord& b) {
    return a.controller == b.controller && (a.speed >= SuperSpeed) != (b.speed >= SuperSpeed);
}

}  // namespace

UsbCore::UsbCore(LinuxUsbOptions options, const Timings& timings, BusEventSink& events)
    : m_options(std::move(options)),
      m_timings(timings),
      m_events(events),
      m_scanner(m_options.cameraIds, m_options.trace) {}

UsbCore::~UsbCore() { Stop(); }

std::uint32_t UsbCore::Start() {
    if (const std::uint32_t status = m_monitor.Open(); status != HAL_OK) {
        return status;
    }
    {
        const LockGuard lock(m_mutex);
        // Listen first, look second.
        m_ueventError = m_uevents.Open(m_timings.ueventBuffer);
        if (m_ueventError == 0) {
            m_ueventError = m_monitor.GetPoller().Add(m_uevents.GetFd(), UeventToken);
        }
        m_hearsUevents = m_ueventError == 0 && UeventsReachUs();
        if (!m_hearsUevents) {
            Trace(m_ueventError != 0
                      ? std::string("USB: this computer's uevents cannot be heard (") +
                            std::generic_category().message(m_ueventError) +
                            "): the buses are looked at every two seconds"
                      : "USB: uevents do not reach this namespace: the buses are looked at every two seconds");
        }
        m_running = true;
        if (const int error = Look(); error == ENOMEM || error == EMFILE || error == ENFILE) {
            m_running = false;
            return HAL_OUT_OF_MEMORY;
        }
    }
    const std::uint32_t status = m_monitor.Start("usb-monitor", [this] { MonitorTurn(); });
    if (status != HAL_OK) {
        const LockGuard lock(m_mutex);
        m_running = false;
    }
    return status;
}

void UsbCore::Stop() {
    {
        const LockGuard lock(m_mutex);
        if (!m_running) {
            return;
        }
        m_running = false;
    }
    m_stopping = true;
    m_monitor.Stop();
}

void UsbCore::MonitorTurn() {
    TimePoint next;
    {
        const LockGuard lock(m_mutex);
        next = NextLook();
    }
    std::vector<std::uint64_t> ready;
    m_monitor.GetPoller().Wait(next, &ready);
    const LockGuard lock(m_mutex);
    TakeEvents();
    if (m_running && Clock::now() >= NextLook()) {
        Look();
    }
}

TimePoint UsbCore::NextLook() const {
    if (m_lookError != 0) {
        return m_lastLook + m_timings.scanRetry;
    }
    if (m_lookIsDue) {
        return BurstEnd();
    }
    return m_hearsUevents ? TimePoint::max() : m_lastLook + m_timings.scanPeriod;
}

TimePoint UsbCore::BurstEnd() const {
    return std::min(m_lastEvent + m_timings.quiet, m_burstStart + m_timings.longestBurst);
}

void UsbCore::TakeEvents() {
    bool concerned = false;
    Uevent event;
    while (true) {
        const UeventSocket::Receipt receipt = m_uevents.Receive(&event);
        if (receipt == UeventSocket::Receipt::Nothing) {
            break;
        }
        if (receipt == UeventSocket::Receipt::Lost) {
            m_scanner.EventsLost();
        } else if (event.subsystem != Subsystem) {
            continue;
        } else if (event.action == "remove") {
            m_scanner.Removed(event.devicePath);
        } else if (event.action == "add") {
            m_scanner.Added(event.devicePath);
        }
        concerned = true;
    }
    if (concerned) {
        m_lastEvent = Clock::now();
        if (!m_lookIsDue) {
            m_burstStart = m_lastEvent;
        }
        m_lookIsDue = true;
    }
}

int UsbCore::Look() {
    m_lastLook = Clock::now();
    // Until it has succeeded, for what it needs may be missing.
    const bool isSettled = m_lookIsDue && m_lastLook >= BurstEnd();
    m_lookError = ENOMEM;
    m_lookError = m_scanner.Scan(&m_devices);
    if (m_lookError != 0) {
        return m_lookError;
    }
    m_lookError = ENOMEM;
    FindAmbiguousKeys();
    UpdateTrees();
    // In the middle of a burst, where a listing or an access looks, more is to come.
    if (isSettled) {
        m_events.ReportSettled(MakeState());
    } else {
        m_events.Report(MakeState());
    }
    m_lookError = 0;
    m_lookIsDue = false;
    return 0;
}

int UsbCore::LookIfDue() {
    TakeEvents();
    const bool isStale = !m_hearsUevents && Clock::now() >= m_lastLook + m_timings.freshLook;
    if (!m_running || !(m_lookIsDue || isStale || m_lookError != 0)) {
        return 0;
    }
    const int error = Look();
    // The monitor may wait for an end of the burst that this look has brought, or for nothing.
    m_monitor.Wake();
    return error;
}

void UsbCore::UpdateTrees() {
    std::map<std::uint64_t, TreeRecords> now = BuildTrees(m_devices);
    bool changed = now.size() != m_trees.size();
    std::map<std::uint64_t, Tree> trees;
    for (auto& [key, records] : now) {
        Tree& tree = trees[key];
        const auto before = m_trees.find(key);
        if (before != m_trees.end() && AreEqual(before->second.records, records)) {
            tree = before->second;
            continue;
        }
        changed = true;
        tree.records = std::move(records);
        tree.generation = ++m_lastGeneration;
    }
    m_trees = std::move(trees);
    if (changed) {
        ++m_resets;
    }
}

void UsbCore::FindAmbiguousKeys() {
    const TimePoint now = Clock::now();
    std::map<CameraKey, const DeviceRecord*> seen;
    std::map<CameraKey, TimePoint> doubled;
    for (const DevicePointer& device : m_devices) {
        if (!device->IsListed()) {
            continue;
        }
        const CameraKey key = KeyOf(*device);
        const auto [first, isFirst] = seen.emplace(key, device.get());
        if (isFirst) {
            continue;
        }
        const auto before = m_doubled.find(key);
        doubled.emplace(key, before != m_doubled.end() ? before->second : now);
        if (!AreInBothHalves(*first->second, *device)) {
            m_ambiguous.insert(key);
        }
    }
    for (const auto& [key, since] : m_doubled) {
        if (now - since >= m_timings.fallBack) {
            m_ambiguous.insert(key);
        }
    }
    m_doubled = std::move(doubled);
}

BusState UsbCore::MakeState() {
    BusState state{m_resets, {}};
    std::map<DevicePointer, PresentDevice> reported;
    std::set<std::string> taken;
    // Those that stay keep what they are called: that a second camera has the same text is no news of the first.
    for (const DevicePointer& device : m_devices) {
        const auto before = m_reported.find(device);
        if (before == m_reported.end() || !device->IsListed()) {
            continue;
        }
        taken.insert(before->second.identity);
        reported.insert(*before);
    }
    for (const DevicePointer& device : m_devices) {
        if (!device->IsListed() || reported.count(device) != 0) {
            continue;
        }
        PresentDevice present;
        present.version = device->GetId();
        const std::string ids =
            std::to_string(device->descriptors.vendorId) + ":" + std::to_string(device->descriptors.productId) + ":";
        present.identity = ids + "s" + device->texts.serial;
        if (device->texts.serial.empty() || taken.count(present.identity) != 0) {
            present.identity = ids + "p" + PlaceText(*device);
        }
        taken.insert(present.identity);
        reported.emplace(device, std::move(present));
    }
    for (const auto& entry : reported) {
        state.devices.push_back(entry.second);
    }
    m_reported = std::move(reported);
    return state;
}

void UsbCore::Trace(const std::string& text) const {
    if (m_options.trace) {
        m_options.trace(text);
    }
}

}  // namespace Nimbrel2::Platform::Usb
