// SPDX-License-Identifier: Apache-2.0
// Reads what a listing does not need of a device. Any thread; no lock; no I/O but sysfs, and /proc for who has claimed
// a camera.
#include "platform/linux/usb/Inspect.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Sysfs.h"
#include "platform/linux/usb/OpenDevice.h"
#include "platform/linux/usb/Scan.h"

namespace Nimbrel2::Platform::Usb {

namespace {

constexpr std::string_view Port = "-port";
constexpr char ProgramsDriver[] = "usbfs";

std::string ReadText(const SysfsDirectory& directory, const char* name) {
    std::string text;
    directory.ReadText(name, &text);
    return text;
}

// The one interface of a hub, in which its ports lie.
std::string HubInterfaceName(const DeviceRecord& hub) {
    const std::string name = hub.IsRootHub() ? std::to_string(hub.bus) + "-0" : hub.name;
    return name + ":" + std::to_string(hub.configuration) + ".0";
}

UsbPortDiagnosis InspectPort(const SysfsDirectory& directory, std::uint8_t number) {
    UsbPortDiagnosis port;
    port.number = number;
    port.connectType = ReadText(directory, "connect_type");
    port.device = directory.ReadLinkName("device");
    port.overCurrents = directory.ReadNumber("over_current_count").value_or(0);
    ParsePortName(directory.ReadLinkName("peer"), &port.peerHub, &port.peerPort);
    return port;
}

std::vector<UsbPortDiagnosis> InspectPorts(const SysfsDirectory& hub, const DeviceRecord& record) {
    std::vector<UsbPortDiagnosis> ports;
    SysfsDirectory interface;
    std::vector<std::string> names;
    if (interface.Open(hub, HubInterfaceName(record)) == 0) {
        interface.List(&names);
    }
    for (const std::string& name : names) {
        std::string hubName;
        std::uint8_t number = 0;
        SysfsDirectory port;
        if (!ParsePortName(name, &hubName, &number) || hubName != record.name || port.Open(interface, name) != 0) {
            continue;
        }
        ports.push_back(InspectPort(port, number));
    }
    std::sort(ports.begin(), ports.end(), [](const auto& a, const auto& b) { return a.number < b.number; });
    if (!ports.empty()) {
        return ports;
    }
    const std::uint32_t count = std::min<std::uint32_t>(hub.ReadNumber("maxchild").value_or(0), 255);
    for (std::uint32_t number = 1; number <= count; ++number) {
        ports.emplace_back().number = static_cast<std::uint8_t>(number);
    }
    return ports;
}

// ---- Who has claimed a camera --------------------------------------------------------------------------------------

bool HasOpen(const std::filesystem::path& process, const std::string& node) {
    std::error_code error;  // it has ended, or is not ours to see
    for (std::filesystem::directory_iterator file(process / "fd", error), end; !error && file != end;
         file.increment(error)) {
        std::error_code hasClosed;
        if (std::filesystem::read_symlink(*file, hasClosed) == node) {
            return true;
        }
    }
    return false;
}

std::string CommandOf(const std::string& process) {
    const std::string path = "/proc/" + process + "/comm";
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 64> name;
    const ssize_t size = file.IsOpen() ? ::read(file.Get(), name.data(), name.size()) : 0;
    std::string text(name.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// Another program than this one that has the node open, as far as this user may see it; 0 when there is none.
std::uint32_t FindProgram(const std::string& node, std::string* command) {
    std::error_code error;
    for (std::filesystem::directory_iterator process("/proc", error), end; !error && process != end;
         process.increment(error)) {
        const std::string name = process->path().filename().string();
        const auto id = ParseNumber(name);
        if (!id || *id == static_cast<std::uint32_t>(::getpid()) || !HasOpen(process->path(), node)) {
            continue;
        }
        *command = CommandOf(name);
        return *id;
    }
    return 0;
}

// ---- Speeds --------------------------------------------------------------------------------------------------------

// A hub of version 2.10 is one half of a USB 3 hub.
std::uint32_t FastestSpeed(const DeviceRecord& device) {
    constexpr std::uint16_t Usb21 = 0x0210;
    const std::uint32_t told = FastestSpeedOf(device.descriptors, device.FindVisionInfo());
    const bool isHalfOfHub = device.descriptors.IsHub() && device.descriptors.usbVersion >= Usb21;
    const std::uint32_t least = device.IsRootHub() ? 0 : isHalfOfHub ? SuperSpeed : told;
    // One that nobody can tell is no less than what it does.
    return told == 0 && least == 0 && !device.IsRootHub() ? 0 : std::max(least, device.speed);
}

UsbDeviceDiagnosis* FindDevice(std::vector<UsbDeviceDiagnosis>* devices, const std::string& name) {
    const auto found = std::find_if(devices->begin(), devices->end(),
                                    [&](const UsbDeviceDiagnosis& other) { return other.name == name; });
    return found == devices->end() ? nullptr : &*found;
}

UsbPortDiagnosis* FindPort(UsbDeviceDiagnosis* hub, std::uint8_t number) {
    const auto found = std::find_if(hub->ports.begin(), hub->ports.end(),
                                    [number](const UsbPortDiagnosis& port) { return port.number == number; });
    return found == hub->ports.end() ? nullptr : &*found;
}

}  // namespace

bool ParsePortName(std::string_view name, std::string* hub, std::uint8_t* port) {
    const std::size_t found = name.rfind(Port);
    if (found == std::string_view::npos || !ParseDeviceName(name.substr(0, found))) {
        return false;
    }
    const auto number = ParseNumber(name.substr(found + Port.size()));
    if (!number || *number == 0 || *number > 255) {
        return false;
    }
    *hub = name.substr(0, found);
    *port = static_cast<std::uint8_t>(*number);
    return true;
}

UsbDeviceDiagnosis Inspect(const DeviceRecord& device) {
    UsbDeviceDiagnosis diagnosis;
    diagnosis.name = device.name;
    diagnosis.port = device.IsRootHub() ? std::uint8_t{0} : device.ports.back();
    diagnosis.controller = device.controller.substr(device.controller.rfind('/') + 1);
    diagnosis.hostKey = device.hostKey;
    diagnosis.deviceId = device.IsRootHub() ? HostDeviceId : device.GetId();
    diagnosis.bus = device.bus;
    diagnosis.number = device.number;
    diagnosis.usbVersion = device.descriptors.usbVersion;
    diagnosis.vendorId = device.descriptors.vendorId;
    diagnosis.productId = device.descriptors.productId;
    diagnosis.speed = device.speed;
    diagnosis.deviceSpeed = FastestSpeed(device);
    diagnosis.isHub = device.descriptors.IsHub();
    diagnosis.isCamera = device.protocol != Protocol::None;
    diagnosis.isVision = device.protocol == Protocol::Vision;
    diagnosis.isListed = device.IsListed();
    diagnosis.node = NodePath(device.bus, device.number);
    if (device.ports.size() == 1) {
        diagnosis.hub = "usb" + std::to_string(device.bus);
    }
    if (device.ports.size() > 1) {
        diagnosis.hub = device.name.substr(0, device.name.rfind('.'));
    }
    if (::access(diagnosis.node.c_str(), R_OK | W_OK) != 0) {
        diagnosis.nodeError = errno;
    }

    SysfsDirectory directory;
    directory.Open(device.path);
    if (diagnosis.isCamera) {
        diagnosis.vendor = device.texts.vendor;
        diagnosis.model = device.texts.model;
        diagnosis.serial = device.texts.serial;
        diagnosis.serialNumber = device.serialNumber;
        diagnosis.isAuthorized = device.authorized;
        diagnosis.configuration = device.configuration;
    } else {
        diagnosis.isAuthorized = directory.ReadNumber("authorized").value_or(1) != 0;
        diagnosis.configuration = directory.ReadNumber("bConfigurationValue").value_or(0);
        diagnosis.vendor = ReadText(directory, "manufacturer");
        diagnosis.model = ReadText(directory, "product");
        diagnosis.serial = ReadText(directory, "serial");
    }
    diagnosis.powerControl = ReadText(directory, "power/control");
    diagnosis.runtimeStatus = ReadText(directory, "power/runtime_status");
    const std::string delay = ReadText(directory, "power/autosuspend_delay_ms");
    std::from_chars(delay.data(), delay.data() + delay.size(), diagnosis.suspendDelay);
    if (diagnosis.isHub) {
        diagnosis.ports = InspectPorts(directory, device);
    }
    return diagnosis;
}

std::vector<UsbClaim> FindClaims(const DeviceRecord& camera) {
    std::vector<UsbClaim> claims;
    const Configuration* configuration = camera.descriptors.FindConfiguration(camera.configuration);
    if (configuration == nullptr) {
        return claims;
    }
    for (const InterfaceDescriptor& interface : configuration->interfaces) {
        UsbClaim claim;
        claim.interface = interface.number;
        claim.isControl = camera.protocol == Protocol::Vision
                              ? interface.IsVisionControl()
                              : interface.number == configuration->interfaces.front().number;
        claim.driver = DriverOf(camera, interface.number);
        if (claim.driver.empty()) {
            continue;
        }
        if (claim.driver == ProgramsDriver) {
            claim.process = FindProgram(NodePath(camera.bus, camera.number), &claim.command);
        }
        claims.push_back(std::move(claim));
    }
    return claims;
}

void RelatePorts(std::vector<UsbDeviceDiagnosis>* devices) {
    const bool arePeersKnown = std::any_of(devices->begin(), devices->end(), [](const UsbDeviceDiagnosis& device) {
        return std::any_of(device.ports.begin(), device.ports.end(),
                           [](const UsbPortDiagnosis& port) { return !port.peerHub.empty(); });
    });
    for (UsbDeviceDiagnosis& device : *devices) {
        UsbDeviceDiagnosis* hub = FindDevice(devices, device.hub);
        if (hub == nullptr) {
            continue;
        }
        UsbPortDiagnosis* port = FindPort(hub, device.port);
        if (port != nullptr) {
            port->device = device.name;
        }
        device.portSpeed = hub->speed;
        if (hub->speed >= SuperSpeed) {
            continue;
        }
        if (const UsbDeviceDiagnosis* peer = port != nullptr ? FindDevice(devices, port->peerHub) : nullptr) {
            device.portSpeed = std::max(device.portSpeed, peer->speed);
            continue;
        }
        // Where the kernel tells nothing of peers, a controller without a SuperSpeed half still tells enough.
        const bool mayBeFaster =
            !arePeersKnown && std::any_of(devices->begin(), devices->end(), [&](const UsbDeviceDiagnosis& other) {
                return other.hostKey == device.hostKey && other.speed >= SuperSpeed;
            });
        if (mayBeFaster) {
            device.portSpeed = 0;
        }
    }
}

}  // namespace Nimbrel2::Platform::Usb
