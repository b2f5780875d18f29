// SPDX-License-Identifier: Apache-2.0
// Reads what is on the USB buses. Runs on whichever thread looks, with the core's mutex held; no I/O but sysfs.
#include "platform/linux/usb/Scan.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/base/Errno.h"
#include "platform/base/Sysfs.h"
#include "platform/base/UsbSerial.h"

namespace Nimbrel2::Platform::Usb {

namespace {

constexpr std::uint32_t MostNumber = 127;
constexpr int Nonsense = EINVAL;  // what is there is not what the kernel writes

// The device left while it was looked at.
bool HasLeft(int error) { return error == ENOENT || error == ENODEV || error == ENXIO; }

int ReadNumber(const SysfsDirectory& directory, const char* name, std::uint32_t* number) {
    std::string text;
    if (const int error = directory.ReadText(name, &text); error != 0) {
        return error;
    }
    const auto parsed = ParseNumber(text);
    *number = parsed.value_or(0);
    return parsed ? 0 : Nonsense;
}

// "1.5" is 1, "unknown" is 0.
std::uint32_t ParseSpeed(const std::string& text) { return ParseNumber(text.substr(0, text.find('.'))).value_or(0); }

// The path of the controller that a device's path goes through; empty when it names no root hub of that bus.
std::string FindController(const std::string& path, std::uint32_t bus) {
    const std::string rootHub = "/usb" + std::to_string(bus);
    const std::size_t found = (path + "/").rfind(rootHub + "/");
    return found == std::string::npos ? std::string() : path.substr(0, found);
}

// What changes while a device stays.
struct Permit {
    std::uint32_t configuration = 0;
    bool authorized = true;
};

int ReadPermit(const SysfsDirectory& directory, const Descriptors& descriptors, Permit* permit) {
    std::string text;
    int error = directory.ReadText("bConfigurationValue", &text);
    if (error == 0) {
        permit->configuration = ParseNumber(text).value_or(0);  // empty: it has none
    } else if (IsShortage(error)) {
        return error;
    } else if (!descriptors.configurations.empty()) {
        permit->configuration = descriptors.configurations.front().value;
    }
    error = directory.ReadText("authorized", &text);
    if (IsShortage(error)) {
        return error;
    }
    permit->authorized = error != 0 || ParseNumber(text) != 0u;
    return 0;
}

// A text that a device has not got is an attribute that is not there.
int ReadTexts(const SysfsDirectory& directory, DeviceTexts* texts) {
    for (const auto& [name, text] : {std::pair{"manufacturer", &texts->manufacturer},
                                     std::pair{"product", &texts->product}, std::pair{"serial", &texts->serial}}) {
        if (const int error = directory.ReadText(name, text); IsShortage(error)) {
            return error;
        }
    }
    return 0;
}

}  // namespace

std::string DriverOf(const DeviceRecord& device, std::uint8_t interface) {
    SysfsDirectory directory;
    const std::string name = device.name + ":" + std::to_string(device.configuration) + "." + std::to_string(interface);
    return directory.Open(device.path + "/" + name) == 0 ? directory.ReadLinkName("driver") : std::string();
}

Scanner::Scanner(std::vector<UsbId> cameraIds, std::function<void(const std::string&)> trace)
    : m_cameraIds(std::move(cameraIds)), m_trace(std::move(trace)) {}

int Scanner::Scan(std::vector<DevicePointer>* devices) {
    std::vector<DevicePointer> found;
    SysfsDirectory directory;
    std::vector<std::string> names;
    int error = directory.Open("bus/usb/devices");
    if (error == 0) {
        error = directory.List(&names);
    }
    // Without the directory this computer has no USB, or not yet.
    if (error != 0 && !HasLeft(error)) {
        return error;
    }
    for (const std::string& name : names) {
        DevicePointer device;
        error = ReadDevice(directory, name, &device);
        if (IsShortage(error)) {
            return error;
        }
        if (device != nullptr) {
            found.push_back(std::move(device));
        }
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return IsBefore(*a, *b); });
    m_last = found;
    m_hasScanned = true;
    *devices = std::move(found);
    return 0;
}

void Scanner::Removed(std::string_view path) {
    if (!ParseDeviceName(path.substr(path.rfind('/') + 1))) {
        return;  // an interface
    }
    const auto known =
        std::find_if(m_last.begin(), m_last.end(), [&](const auto& device) { return device->path == path; });
    std::uint64_t inode = 0;
    if (known != m_last.end()) {
        inode = (*known)->inode;
    } else if (SysfsDirectory directory; directory.Open(path) == 0) {
        inode = directory.GetInode();
    }
    if (inode != 0) {
        m_removed.insert_or_assign(std::string(path), inode);
    }
}

void Scanner::Added(std::string_view path) {
    if (const auto found = m_removed.find(path); found != m_removed.end()) {
        m_removed.erase(found);
    }
}

DevicePointer Scanner::Find(const std::string& name) const {
    const auto found =
        std::find_if(m_last.begin(), m_last.end(), [&](const auto& device) { return device->name == name; });
    return found == m_last.end() ? nullptr : *found;
}

int Scanner::ReadDevice(const SysfsDirectory& devices, const std::string& name, DevicePointer* device) {
    const auto parsed = ParseDeviceName(name);
    if (!parsed) {
        return 0;  // an interface
    }
    DeviceRecord record;
    record.name = name;
    record.bus = parsed->bus;
    record.ports = parsed->ports;
    record.path = devices.ReadLinkPath(name.c_str());
    SysfsDirectory directory;
    int error = record.path.empty() ? ENOENT : directory.Open(devices, name);
    if (error != 0) {
        return error;
    }
    record.inode = directory.GetInode();
    if (const auto removed = m_removed.find(record.path); removed != m_removed.end()) {
        if (removed->second == record.inode) {
            return ENOENT;
        }
        m_removed.erase(removed);
    }
    error = ReadNumber(directory, "devnum", &record.number);
    if (error == 0 && (record.number == 0 || record.number > MostNumber)) {
        error = Nonsense;
    }
    if (error != 0) {
        return LeaveOut(record, error, "its device number makes no sense");
    }

    const DevicePointer known = Find(name);
    const bool isKnown = known != nullptr && known->inode == record.inode && known->number == record.number &&
                         known->path == record.path;
    if (isKnown) {
        record = *known;
    } else if (error = ReadNew(directory, &record); error != 0) {
        return LeaveOut(record, error, "its descriptors or its path make no sense");
    }
    if (!IsNamed(record.descriptors) && record.descriptors.FindVisionControl(0) == nullptr) {
        // It can be no camera, whatever configuration it is given. Asking which one waits for what the kernel does with
        // the device: five seconds while a broken one does not answer, and nobody would be listed meanwhile.
        if (!isKnown && !record.descriptors.configurations.empty()) {
            record.configuration = record.descriptors.configurations.front().value;
        }
        *device = isKnown ? known : std::make_shared<const DeviceRecord>(std::move(record));
        return 0;
    }
    Permit permit;
    if (error = ReadPermit(directory, record.descriptors, &permit); error != 0) {
        return error;
    }
    if (isKnown && permit.configuration == known->configuration && permit.authorized == known->authorized) {
        *device = known;
        return 0;
    }
    record.configuration = permit.configuration;
    record.authorized = permit.authorized;
    if (error = Identify(directory, &record); error != 0) {
        return error;
    }
    *device = std::make_shared<const DeviceRecord>(std::move(record));
    return 0;
}

int Scanner::ReadNew(const SysfsDirectory& directory, DeviceRecord* record) const {
    std::vector<std::uint8_t> bytes;
    if (const int error = directory.ReadBytes("descriptors", &bytes); error != 0) {
        return error;
    }
    auto descriptors = ParseDescriptors(bytes);
    record->controller = FindController(record->path, record->bus);
    if (!descriptors || record->controller.empty()) {
        return Nonsense;
    }
    record->descriptors = *std::move(descriptors);
    record->hostKey = ControllerKey(record->controller);
    std::string speed;
    if (const int error = directory.ReadText("speed", &speed); IsShortage(error)) {
        return error;
    }
    record->speed = ParseSpeed(speed);
    if (m_hasScanned) {
        record->firstSeen = Clock::now();
    }
    return 0;
}

bool Scanner::IsNamed(const Descriptors& descriptors) const {
    return std::any_of(m_cameraIds.begin(), m_cameraIds.end(), [&](const UsbId& id) {
        return id.vendor == descriptors.vendorId && id.product == descriptors.productId;
    });
}

int Scanner::Identify(const SysfsDirectory& directory, DeviceRecord* record) const {
    const Descriptors& descriptors = record->descriptors;
    record->protocol = record->FindControl() != nullptr ? Protocol::Vision
                       : IsNamed(descriptors)           ? Protocol::VendorRequests
                                                        : Protocol::None;
    if (record->protocol == Protocol::None) {
        return 0;
    }
    DeviceTexts texts;
    if (const int error = ReadTexts(directory, &texts); error != 0) {
        return error;
    }
    record->texts = ChooseTexts(descriptors, record->FindVisionInfo(), texts);
    record->serialNumber =
        UsbSerialNumber(descriptors.vendorId, descriptors.productId, record->texts.serial, PlaceText(*record));
    return 0;
}

int Scanner::LeaveOut(const DeviceRecord& device, int error, const char* nonsense) {
    if (!m_trace || IsShortage(error) || HasLeft(error)) {
        return error;
    }
    // Once per visit.
    if (std::exchange(m_traced[device.name], device.inode) != device.inode) {
        m_trace("USB device " + device.name + " is left out: " +
                (error == Nonsense ? nonsense : "it cannot be read: " + std::generic_category().message(error)));
    }
    return error;
}

}  // namespace Nimbrel2::Platform::Usb
