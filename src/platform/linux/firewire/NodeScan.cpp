// SPDX-License-Identifier: Apache-2.0
// The nodes of all IEEE 1394 buses as sysfs shows them. Any thread; no lock. Opens no device and waits for none.
#include "platform/linux/firewire/NodeScan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/base/Errno.h"
#include "platform/base/Sysfs.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

constexpr std::uint32_t Ohci1394 = 0x0C0010;  // PCI class: serial bus, FireWire, OHCI

/// "fw12", not "fw12.0", which is a unit of it.
bool IsNodeName(std::string_view name) {
    return name.size() > 2 && name.substr(0, 2) == "fw" &&
           name.find_first_not_of("0123456789", 2) == std::string_view::npos;
}

/// Of "/devices/pci0000:00/0000:06:01.0/fw0" the part that names the controller.
std::string CardOf(const std::string& path) {
    const std::size_t end = path.rfind('/');
    return path.substr(0, 9) == "/devices/" && end > 9 ? path.substr(0, end) : std::string();
}

int Scan(const SysfsDirectory& devices, const std::string& name, ScannedNode* node) {
    node->name = name;
    node->card = CardOf(devices.ReadLinkPath(name.c_str()));
    if (node->card.empty()) {
        return ENOENT;
    }
    SysfsDirectory directory;
    std::vector<std::uint8_t> rom;
    std::string isLocal;
    int error = directory.Open(devices, name);
    if (error == 0) {
        error = directory.ReadBytes("config_rom", &rom);
    }
    if (error == 0) {
        error = directory.ReadText("is_local", &isLocal);
    }
    if (error != 0) {
        return error;
    }
    node->inode = directory.GetInode();
    node->isLocal = isLocal == "1";
    node->rom.resize(rom.size() / sizeof(std::uint32_t));
    if (!node->rom.empty()) {
        std::memcpy(node->rom.data(), rom.data(), node->rom.size() * sizeof(std::uint32_t));
    }
    return 0;
}

}  // namespace

int ScanNodes(std::vector<ScannedNode>* nodes) {
    nodes->clear();
    SysfsDirectory devices;
    std::vector<std::string> names;
    int error = devices.Open("bus/firewire/devices");
    if (error == 0) {
        error = devices.List(&names);
    }
    if (error != 0) {
        return error;
    }
    for (const std::string& name : names) {
        if (!IsNodeName(name)) {
            continue;
        }
        ScannedNode node;
        error = Scan(devices, name, &node);
        if (IsShortage(error)) {
            return error;
        }
        if (error == 0) {
            nodes->push_back(std::move(node));
        }
    }
    return 0;
}

std::vector<std::string> FindIdleControllers() {
    std::vector<std::string> idle;
    SysfsDirectory devices;
    std::vector<std::string> names;
    if (devices.Open("bus/pci/devices") != 0 || devices.List(&names) != 0) {
        return idle;
    }
    for (const std::string& name : names) {
        SysfsDirectory device;
        if (device.Open(devices, name) != 0 || device.Has("driver")) {
            continue;
        }
        std::string number;
        if (device.ReadText("class", &number) != 0 || number.substr(0, 2) != "0x") {
            continue;
        }
        if (ParseNumber(std::string_view(number).substr(2), 16) == Ohci1394) {
            idle.push_back(name);
        }
    }
    std::sort(idle.begin(), idle.end());
    return idle;
}

}  // namespace Nimbrel2::Platform::FireWire
