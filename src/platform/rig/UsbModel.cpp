// SPDX-License-Identifier: Apache-2.0
// One USB host controller in memory. No thread, no lock: the rig that owns it guards it.
#include "platform/rig/UsbModel.h"

#include <algorithm>
#include <set>

namespace Nimbrel2::Platform {

namespace {

constexpr unsigned int MaxPort = 15;  // what a nibble of a route string holds
constexpr unsigned int MaxHubsInARow = 5;
constexpr std::size_t MaxDevices = 127;    // addresses of one half
constexpr std::size_t MaxRecords = 1024;   // what a caller has room for
constexpr std::uint32_t MaxAddress = 255;  // both halves share them, and each device has one in each at most
constexpr unsigned int HighSpeed = 480;
constexpr unsigned int SuperSpeed = 5000;
constexpr unsigned int FastestSpeed = 20000;
constexpr std::uint32_t HostDeviceId = 63;  // the host's own id in a topology tree

bool IsSpeed(unsigned int speed) {
    return speed == 12 || speed == HighSpeed || speed == SuperSpeed || speed == 10000 || speed == 20000;
}

class Validator {
public:
    Validator(const UsbHostDescription& host, std::string pointer) : m_host(host), m_pointer(std::move(pointer)) {}

    std::vector<RigProblem> Run() {
        if (m_host.usb2Ports > MaxPort || m_host.usb3Ports > MaxPort || m_host.usb2Ports + m_host.usb3Ports == 0) {
            Add("", "a host has up to 15 root ports in each half and at least one in all");
        }
        if (!m_host.records.empty()) {
            CheckRecords();
            return std::move(m_problems);
        }
        if (!m_host.placedCameras.empty()) {
            Add("/placedCameras", "cameras have places among records, and there are none");
        }
        if (m_host.devices.size() > MaxDevices) {
            Add("/devices", "a host has at most 127 devices, not " + std::to_string(m_host.devices.size()));
            return std::move(m_problems);
        }
        CheckNames();
        if (m_problems.empty()) {
            CheckPlaces();
        }
        return std::move(m_problems);
    }

private:
    void Add(const std::string& where, std::string reason) {
        m_problems.push_back({m_pointer + where, std::move(reason)});
    }

    void CheckRecords() {
        if (!m_host.devices.empty()) {
            Add("/records", "a host is given either as records or as devices, not both");
        }
        if (m_host.records.size() > MaxRecords) {
            Add("/records", "a host has at most 1024 records, not " + std::to_string(m_host.records.size()));
        }
        std::set<std::uint32_t> deviceIds;
        for (std::size_t i = 0; i < m_host.records.size(); ++i) {
            const std::uint32_t deviceId = m_host.records[i].deviceId;
            if (deviceId == HostDeviceId || !deviceIds.insert(deviceId).second) {
                Add("/records/" + std::to_string(i) + "/deviceId",
                    "the device id " + std::to_string(deviceId) + " is another record's, or 63, the host's");
            }
        }
        for (std::size_t i = 0; i < m_host.placedCameras.size(); ++i) {
            const std::uint32_t deviceId = m_host.placedCameras[i].deviceId;
            if (deviceIds.erase(deviceId) == 0) {
                Add("/placedCameras/" + std::to_string(i) + "/deviceId",
                    "no record has the device id " + std::to_string(deviceId) + ", or another camera has it");
            }
            CheckSpeed(m_host.placedCameras[i].camera, "/placedCameras/" + std::to_string(i));
        }
    }

    void CheckSpeed(const UsbDeviceDescription& device, const std::string& where) {
        if (!IsSpeed(device.speed)) {
            Add(where + "/speed", "a speed is 12, 480, 5000, 10000 or 20000, not " + std::to_string(device.speed));
        }
    }

    const UsbDeviceDescription* Find(const std::string& name) const {
        const auto found = std::find_if(m_host.devices.begin(), m_host.devices.end(),
                                        [&name](const UsbDeviceDescription& device) { return device.name == name; });
        return found == m_host.devices.end() ? nullptr : &*found;
    }

    void CheckNames() {
        std::set<std::string> names{m_host.name};
        for (std::size_t i = 0; i < m_host.devices.size(); ++i) {
            const UsbDeviceDescription& device = m_host.devices[i];
            const std::string where = "/devices/" + std::to_string(i);
            if (device.name.empty() || !names.insert(device.name).second) {
                Add(where + "/name", "\"" + device.name + "\" is empty or taken");
            }
            CheckSpeed(device, where);
            if (device.kind == UsbKind::Hub && (device.ports < 1 || device.ports > MaxPort)) {
                Add(where + "/ports", "a hub has 1 to 15 ports, not " + std::to_string(device.ports));
            }
        }
    }

    void CheckPlaces() {
        std::set<std::pair<std::string, unsigned int>> taken;
        for (std::size_t i = 0; i < m_host.devices.size(); ++i) {
            const UsbDeviceDescription& device = m_host.devices[i];
            const std::string where = "/devices/" + std::to_string(i);
            const UsbDeviceDescription* parent = Find(device.parent);
            unsigned int ports = std::max(m_host.usb2Ports, m_host.usb3Ports);
            if (device.parent != m_host.name) {
                if (parent == nullptr || parent->kind != UsbKind::Hub) {
                    Add(where + "/parent", "\"" + device.parent + "\" is neither this host nor one of its hubs");
                    continue;
                }
                ports = parent->ports;
            }
            if (device.port < 1 || device.port > ports) {
                Add(where + "/port", "\"" + device.parent + "\" has no port " + std::to_string(device.port));
            } else if (!taken.insert({device.parent, device.port}).second) {
                Add(where + "/port", "port " + std::to_string(device.port) + " of \"" + device.parent + "\" is taken");
            }
            CheckDepth(device, where);
            if (m_problems.empty()) {
                CheckHalf(device, where);
            }
        }
    }

    // Without root ports of the USB 2 half there, only what does SuperSpeed all the way is attached at all.
    void CheckHalf(const UsbDeviceDescription& device, const std::string& where) {
        bool canSuperSpeed = device.speed >= SuperSpeed;
        const UsbDeviceDescription* top = &device;
        while (const UsbDeviceDescription* hub = Find(top->parent)) {
            top = hub;
            canSuperSpeed = canSuperSpeed && hub->speed >= SuperSpeed;
        }
        if (top->port > m_host.usb2Ports && !(canSuperSpeed && top->port <= m_host.usb3Ports)) {
            Add(where + "/speed", "\"" + device.name + "\" is below root port " + std::to_string(top->port) +
                                      ", which only does SuperSpeed, and it does not");
        }
    }

    void CheckDepth(const UsbDeviceDescription& device, const std::string& where) {
        unsigned int hubs = device.kind == UsbKind::Hub ? 1 : 0;
        for (const UsbDeviceDescription* hub = Find(device.parent); hub != nullptr; hub = Find(hub->parent)) {
            if (++hubs > MaxHubsInARow) {
                Add(where + "/parent", "more than five hubs in a row, or hubs in a loop, at \"" + device.name + "\"");
                return;
            }
        }
    }

    const UsbHostDescription& m_host;
    const std::string m_pointer;
    std::vector<RigProblem> m_problems;
};

}  // namespace

std::vector<RigProblem> UsbModel::Validate(const UsbHostDescription& description, const std::string& pointer) {
    return Validator(description, pointer).Run();
}

UsbModel::UsbModel(UsbHostDescription description, unsigned int host)
    : m_description(std::move(description)), m_host(host) {
    for (const auto& placed : m_description.placedCameras) {
        m_description.devices.push_back(placed.camera);
    }
    Rebuild();
}

bool UsbModel::Has(const std::string& name) const { return IndexOf(name) != m_description.devices.size(); }

std::size_t UsbModel::IndexOf(const std::string& name) const {
    std::size_t index = 0;
    while (index < m_description.devices.size() && m_description.devices[index].name != name) {
        ++index;
    }
    return index;
}

bool UsbModel::Plug(const std::string& name) {
    const std::size_t index = IndexOf(name);
    if (index == m_description.devices.size() || m_description.devices[index].plugged) {
        return false;
    }
    m_description.devices[index].plugged = true;
    Rebuild();
    return true;
}

bool UsbModel::Unplug(const std::string& name) {
    const std::size_t index = IndexOf(name);
    if (index == m_description.devices.size() || !m_description.devices[index].plugged) {
        return false;
    }
    m_description.devices[index].plugged = false;
    Rebuild();
    return true;
}

std::optional<std::string> UsbModel::Move(const std::string& name, const std::string& parent, unsigned int port) {
    if (!m_description.records.empty()) {
        return "\"" + name + "\" is on a host given as records and cannot be moved";
    }
    UsbHostDescription moved = m_description;
    UsbDeviceDescription& device = moved.devices[IndexOf(name)];
    device.parent = parent;
    device.port = port;
    device.plugged = true;
    const std::vector<RigProblem> problems = Validate(moved, "");
    if (!problems.empty()) {
        return problems.front().reason;
    }
    ForgetAddresses(name);
    // In place: the attached devices point into the description.
    m_description.devices[IndexOf(name)] = device;
    Rebuild();
    return std::nullopt;
}

void UsbModel::Reset() {
    m_addresses.clear();
    Rebuild();
}

void UsbModel::ForgetAddresses(const std::string& name) {
    m_addresses.erase({name, false});
    m_addresses.erase({name, true});
}

void UsbModel::Rebuild() {
    ++m_generation;
    m_attached.clear();
    if (!m_description.records.empty()) {
        AttachPlacedCameras();
        return;
    }
    AttachBelow(m_description.name, {}, false, HostDeviceId, HighSpeed);
    AttachBelow(m_description.name, {}, true, HostDeviceId, FastestSpeed);
    std::erase_if(m_addresses, [this](const auto& entry) {
        return std::none_of(m_attached.begin(), m_attached.end(), [&entry](const Attached& attached) {
            return attached.device->name == entry.first.first && (attached.speed >= SuperSpeed) == entry.first.second;
        });
    });
}

// Where its record says, and as fast; what a record does not say is the camera's own.
void UsbModel::AttachPlacedCameras() {
    for (std::size_t i = 0; i < m_description.devices.size(); ++i) {
        const UsbDeviceDescription& camera = m_description.devices[i];
        const auto record = std::find_if(
            m_description.records.begin(), m_description.records.end(),
            [&](const UsbSelfId& each) { return each.deviceId == m_description.placedCameras[i].deviceId; });
        if (!camera.plugged) {
            continue;
        }
        Attached attached{&camera,
                          record->speed != 0 ? record->speed : camera.speed,
                          record->deviceId,
                          {static_cast<unsigned int>(record->rootPortId & 0xFF)},
                          static_cast<std::uint32_t>(record->parentId)};
        for (std::uint64_t route = record->routeString; route != 0; route >>= 4) {
            attached.path.push_back(static_cast<unsigned int>(route & 0xF));
        }
        m_attached.push_back(std::move(attached));
    }
}

// A device that can do SuperSpeed here is in that half, unless it is a hub: that is in both.
void UsbModel::AttachBelow(const std::string& parent, const std::vector<unsigned int>& path, bool superSpeed,
                           std::uint32_t parentId, unsigned int parentSpeed) {
    const bool onRoot = parent == m_description.name;
    const std::size_t parentIndex = IndexOf(parent);
    const bool parentHasSuperSpeed = onRoot || m_description.devices[parentIndex].speed >= SuperSpeed;
    for (const UsbDeviceDescription& device : m_description.devices) {
        if (device.parent != parent || !device.plugged) {
            continue;
        }
        const unsigned int rootPort = path.empty() ? device.port : path.front();
        bool canSuperSpeed = device.speed >= SuperSpeed && parentHasSuperSpeed && rootPort <= m_description.usb3Ports;
        for (std::size_t hub = parentIndex; canSuperSpeed && hub != m_description.devices.size();
             hub = IndexOf(m_description.devices[hub].parent)) {
            canSuperSpeed = m_description.devices[hub].speed >= SuperSpeed;
        }
        const bool isHub = device.kind == UsbKind::Hub;
        const bool inThisHalf =
            superSpeed ? canSuperSpeed : rootPort <= m_description.usb2Ports && (isHub || !canSuperSpeed);
        if (!inThisHalf) {
            continue;
        }
        Attached attached;
        attached.device = &device;
        attached.speed = std::min(device.speed, parentSpeed);
        attached.deviceId = AddressOf(device.name, superSpeed);
        attached.path = path;
        attached.path.push_back(device.port);
        attached.parentId = parentId;
        m_attached.push_back(attached);
        if (isHub) {
            AttachBelow(device.name, attached.path, superSpeed, attached.deviceId, attached.speed);
        }
    }
}

std::uint32_t UsbModel::AddressOf(const std::string& name, bool superSpeed) {
    std::uint32_t& address = m_addresses[{name, superSpeed}];
    if (address == 0) {
        const auto isTaken = [this] {
            return m_nextAddress == HostDeviceId ||
                   std::any_of(m_addresses.begin(), m_addresses.end(),
                               [this](const auto& entry) { return entry.second == m_nextAddress; });
        };
        while (isTaken()) {
            m_nextAddress = m_nextAddress % MaxAddress + 1;
        }
        address = m_nextAddress;
        m_nextAddress = m_nextAddress % MaxAddress + 1;
    }
    return address;
}

const UsbModel::Attached* UsbModel::Find(const std::string& name) const {
    const Attached* found = nullptr;
    for (const Attached& attached : m_attached) {
        if (attached.device->name == name && (found == nullptr || attached.speed > found->speed)) {
            found = &attached;
        }
    }
    return found;
}

std::vector<UsbSelfId> UsbModel::Records() const {
    if (!m_description.records.empty()) {
        return m_description.records;
    }
    std::vector<UsbSelfId> records;
    records.reserve(m_attached.size());
    for (const Attached& attached : m_attached) {
        UsbSelfId record{};
        record.deviceId = attached.deviceId;
        record.speed = attached.speed;
        // The root ports of the two halves are different ports, whatever their numbers.
        record.rootPortId = (attached.speed >= SuperSpeed ? 0x300U : 0x200U) + attached.path.front();
        for (std::size_t tier = 1; tier < attached.path.size(); ++tier) {
            record.routeString |= static_cast<std::uint64_t>(attached.path[tier]) << (4 * (tier - 1));
        }
        record.parentId = attached.parentId;
        records.push_back(record);
    }
    return records;
}

std::uint32_t UsbModel::LinkInfo(const Attached& device) {
    return device.speed / 10 << 16 | device.path.back() << 8 | static_cast<std::uint32_t>(device.path.size() - 1);
}

// wPortStatus of a connected, enabled port that nothing has changed on: USB 3.2 table 10-13 (U0, power in bit 9),
// USB 2.0 table 11-21 (power in bit 8, high speed in bit 10).
std::uint32_t UsbModel::PortStatus(const Attached& device) {
    if (device.speed >= SuperSpeed) {
        return 0x0203;
    }
    return device.speed >= HighSpeed ? 0x0503 : 0x0103;
}

}  // namespace Nimbrel2::Platform
