// SPDX-License-Identifier: Apache-2.0
// A mocked /sys, /dev and uevents with USB controllers, hubs and cameras of a test's own. Programs that use it are
// linked with the library that redirects the calls of the C library. One test thread; code under test may run on
// others.
#ifndef NIMBREL2_TESTS_PLATFORM_USB_USBTESTBED_H
#define NIMBREL2_TESTS_PLATFORM_USB_USBTESTBED_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/platform/usb/SampleDescriptors.h"

struct _UMockdevTestbed;  // NOLINT(bugprone-reserved-identifier): the library calls it so

namespace Nimbrel2::Testing {

/// One device to be plugged in. Its name says where: "2-1.3".
struct MockedDevice {
    std::string name;
    unsigned int number = 0;  ///< devnum
    std::string speed;
    std::vector<std::uint8_t> descriptors;
    std::string manufacturer;  ///< texts: no attribute when empty
    std::string product;
    std::string serial;
    std::map<std::string, std::string> attributes;  ///< besides, or in place of, what every device has
};

MockedDevice Camera(const std::string& name, unsigned int number, const std::string& serial, bool superSpeed = true);
/// One half of a hub: that of the bus it is on.
MockedDevice Hub(const std::string& name, unsigned int number, bool superSpeed, unsigned int ports = 4);

class UsbTestbed {
public:
    static constexpr char Pci[] = "/devices/pci0000:00/0000:00:14.0";

    UsbTestbed();
    ~UsbTestbed();
    UsbTestbed(const UsbTestbed&) = delete;
    UsbTestbed& operator=(const UsbTestbed&) = delete;

    /// Devices as they were recorded from a real kernel: the name of a file of tests/platform/usb/data.
    void AddRecording(const std::string& name);
    /// A controller with its root hubs; bus 0 for a half that it has not got. The buses lead to it from here on.
    void AddController(const std::string& path, unsigned int usb2Bus, unsigned int usb3Bus, unsigned int ports = 8);

    /// Plugs it in. The kernel's news of that follow at once.
    void Add(const MockedDevice& device);
    /// Pulls it out, with everything below it: the leaves first.
    void Remove(const std::string& name);
    /// The same without news.
    void RemoveSilently(const std::string& name);

    void SetAttribute(const std::string& name, const std::string& attribute, const std::string& value);
    void RemoveAttribute(const std::string& name, const std::string& attribute);
    /// @param target  As readlink shows it.
    void SetLink(const std::string& name, const std::string& attribute, const std::string& target);
    void SendUevent(const std::string& name, const std::string& action);
    /// Sets an attribute outside of devices: "module/usbcore/parameters/usbfs_memory_mb".
    void SetFile(const std::string& path, const std::string& value);

    /// Where it all lies: UMOCKDEV_DIR for other programs.
    std::string GetRoot() const;
    /// Of a device below the root: "/sys/devices/...".
    std::string PathOf(const std::string& name) const;
    /// Of a device node as code under test names it, in the file system of the test.
    std::string RealPath(const std::string& path) const { return GetRoot() + path; }

private:
    _UMockdevTestbed* const m_testbed;
    std::map<unsigned int, std::string> m_controllers;  ///< paths by bus
    std::vector<std::string> m_names;
};

}  // namespace Nimbrel2::Testing

#endif
