// SPDX-License-Identifier: Apache-2.0
// Mocked USB devices. Test thread only; no lock.
#include "tests/platform/usb/UsbTestbed.h"

#include <umockdev.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace Nimbrel2::Testing {

namespace {

using Bytes = std::vector<std::uint8_t>;

void Check(bool done, const char* what, GError* error = nullptr) {
    if (done) {
        return;
    }
    throw std::runtime_error(std::string(what) + (error != nullptr ? std::string(": ") + error->message : ""));
}

std::string Hex(const Bytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char two[3];
        std::snprintf(two, sizeof two, "%02X", byte);
        text += two;
    }
    return text;
}

unsigned int BusOf(const std::string& name) {
    return static_cast<unsigned int>(std::stoul(name.rfind("usb", 0) == 0 ? name.substr(3) : name));
}

bool IsRootHub(const std::string& name) { return name.rfind("usb", 0) == 0; }

bool IsBelow(const std::string& name, const std::string& above) {
    if (IsRootHub(above)) {
        return !IsRootHub(name) && BusOf(name) == BusOf(above);
    }
    return name.size() > above.size() && name.compare(0, above.size(), above) == 0 && name[above.size()] == '.';
}

}  // namespace

MockedDevice Camera(const std::string& name, unsigned int number, const std::string& serial, bool superSpeed) {
    return {name,   number, superSpeed ? "5000" : "480", CameraDescriptors(superSpeed), "Example Vision", "Model",
            serial, {}};
}

MockedDevice Hub(const std::string& name, unsigned int number, bool superSpeed, unsigned int ports) {
    return {name,
            number,
            superSpeed ? "5000" : "480",
            HubDescriptors(superSpeed ? 0x0300 : 0x0210),
            "Example",
            "Hub",
            "",
            {{"maxchild", std::to_string(ports)}, {"power/control", "auto"}}};
}

UsbTestbed::UsbTestbed() : m_testbed(umockdev_testbed_new()) {}

UsbTestbed::~UsbTestbed() { g_object_unref(m_testbed); }

void UsbTestbed::AddRecording(const std::string& name) {
    std::ifstream file(std::string(NIMBREL2_USB_DATA) + "/" + name);
    std::ostringstream text;
    text << file.rdbuf();
    Check(file.good(), "no such recording");
    GError* error = nullptr;
    Check(umockdev_testbed_add_from_string(m_testbed, text.str().c_str(), &error) != 0, "recording", error);
    std::istringstream lines(text.str());
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("P: ", 0) != 0) {
            continue;
        }
        const std::string device = line.substr(line.rfind('/') + 1);
        if (!std::isdigit(static_cast<unsigned char>(device.back())) || device.find(':') != std::string::npos) {
            continue;
        }
        if (IsRootHub(device)) {
            m_controllers[BusOf(device)] = line.substr(3, line.rfind('/') - 3);
        }
        if (IsRootHub(device) || device.find('-') != std::string::npos) {
            m_names.push_back(device);
        }
    }
}

void UsbTestbed::AddController(const std::string& path, unsigned int usb2Bus, unsigned int usb3Bus,
                               unsigned int ports) {
    const std::string address = path.substr(path.rfind('/') + 1);
    for (const unsigned int bus : {usb2Bus, usb3Bus}) {
        if (bus == 0) {
            continue;
        }
        m_controllers[bus] = path;
        MockedDevice hub = Hub("usb" + std::to_string(bus), 1, bus == usb3Bus, ports);
        hub.manufacturer = "Linux 6.1.0 xhci-hcd";
        hub.product = "xHCI Host Controller";
        hub.serial = address;
        hub.descriptors = HubDescriptors(bus == usb3Bus ? 0x0300 : 0x0200);
        Add(hub);
    }
}

void UsbTestbed::Add(const MockedDevice& device) {
    const unsigned int bus = BusOf(device.name);
    char node[32];
    std::snprintf(node, sizeof node, "bus/usb/%03u/%03u", bus, device.number);
    std::map<std::string, std::string> attributes{
        {"busnum", std::to_string(bus)},
        {"devnum", std::to_string(device.number)},
        {"speed", device.speed},
        {"bConfigurationValue", "1"},
        {"authorized", "1"},
        {"power/control", "on"},
        {"power/runtime_status", "active"},
        {"power/autosuspend_delay_ms", "2000"},
    };
    if (!device.manufacturer.empty()) {
        attributes["manufacturer"] = device.manufacturer;
    }
    if (!device.product.empty()) {
        attributes["product"] = device.product;
    }
    if (!device.serial.empty()) {
        attributes["serial"] = device.serial;
    }
    for (const auto& [name, value] : device.attributes) {
        attributes[name] = value;
    }

    std::string text = "P: " + PathOf(device.name).substr(4) + "\n";
    text += "N: " + std::string(node) + "=" + Hex(device.descriptors) + "\n";
    text += "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=/dev/" + std::string(node) + "\n";
    for (const auto& [name, value] : attributes) {
        text.append("A: ").append(name).append("=").append(value).append("\\n\n");
    }
    text += "H: descriptors=" + Hex(device.descriptors) + "\n";
    GError* error = nullptr;
    Check(umockdev_testbed_add_from_string(m_testbed, text.c_str(), &error) != 0, device.name.c_str(), error);
    m_names.push_back(device.name);
}

void UsbTestbed::Remove(const std::string& name) {
    std::vector<std::string> leaving{name};
    std::copy_if(m_names.begin(), m_names.end(), std::back_inserter(leaving),
                 [&](const std::string& other) { return IsBelow(other, name); });
    std::sort(leaving.begin(), leaving.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    for (const std::string& each : leaving) {
        SendUevent(each, "unbind");
        SendUevent(each, "remove");
        RemoveSilently(each);
    }
}

void UsbTestbed::RemoveSilently(const std::string& name) {
    umockdev_testbed_remove_device(m_testbed, PathOf(name).c_str());
    m_names.erase(std::remove(m_names.begin(), m_names.end(), name), m_names.end());
}

void UsbTestbed::SetAttribute(const std::string& name, const std::string& attribute, const std::string& value) {
    umockdev_testbed_set_attribute(m_testbed, PathOf(name).c_str(), attribute.c_str(), (value + "\n").c_str());
}

void UsbTestbed::RemoveAttribute(const std::string& name, const std::string& attribute) {
    Check(std::filesystem::remove(RealPath(PathOf(name)) + "/" + attribute), "no such attribute");
}

void UsbTestbed::SetLink(const std::string& name, const std::string& attribute, const std::string& target) {
    const std::filesystem::path link = RealPath(PathOf(name)) + "/" + attribute;
    std::filesystem::create_directories(link.parent_path());
    std::filesystem::remove(link);
    std::filesystem::create_symlink(target, link);
}

void UsbTestbed::SendUevent(const std::string& name, const std::string& action) {
    umockdev_testbed_uevent(m_testbed, PathOf(name).c_str(), action.c_str());
}

void UsbTestbed::SetFile(const std::string& path, const std::string& value) {
    const std::filesystem::path file = GetRoot() + "/sys/" + path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << value << "\n";
}

std::string UsbTestbed::GetRoot() const {
    gchar* const root = umockdev_testbed_get_root_dir(m_testbed);
    const std::string copy = root;
    g_free(root);
    return copy;
}

std::string UsbTestbed::PathOf(const std::string& name) const {
    const unsigned int bus = BusOf(name);
    const auto controller = m_controllers.find(bus);
    Check(controller != m_controllers.end(), "no controller has that bus");
    std::string path = "/sys" + controller->second + "/usb" + std::to_string(bus);
    if (IsRootHub(name)) {
        return path;
    }
    for (std::size_t end = name.find('.'); end != std::string::npos; end = name.find('.', end + 1)) {
        path.append("/").append(name, 0, end);
    }
    return path.append("/").append(name);
}

}  // namespace Nimbrel2::Testing
