// SPDX-License-Identifier: Apache-2.0
// The USB driver on a real kernel's uevent socket: in a namespace of the test's own, where /sys is a folder with a few
// made-up devices, and a real sysfs in it for what makes the kernel speak.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/linux/usb/UsbCore.h"
#include "tests/platform/usb/ReportedStates.h"
#include "tests/platform/usb/SampleDescriptors.h"
#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Testing {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
constexpr char Controller[] = "/sys/devices/platform/hcd.0";

class UsbOnARealKernel : public testing::Test {
public:
    UsbOnARealKernel() {
        own.Run([] {
            ASSERT_EQ(::mount("tmpfs", "/sys", "tmpfs", 0, nullptr), 0);
            fs::create_directories("/sys/real");
            ASSERT_EQ(::mount("sysfs", "/sys/real", "sysfs", 0, nullptr), 0);
            fs::create_directories("/sys/bus/usb/devices");
            MakeDevice("usb2", "usb2", 1, HubDescriptors(0x0300), "");
        });
    }
    ~UsbOnARealKernel() override {
        if (core) {
            core->Stop();
        }
    }

    // As the kernel lays a device out; nobody is told.
    static void MakeDevice(const std::string& name, const std::string& path, unsigned int number,
                           const std::vector<std::uint8_t>& descriptors, const std::string& serial) {
        const fs::path folder = fs::path(Controller) / path;
        fs::create_directories(folder);
        const auto write = [&](const char* attribute, const std::string& value) {
            std::ofstream(folder / attribute, std::ios::binary) << value;
        };
        write("devnum", std::to_string(number) + "\n");
        write("speed", "5000\n");
        write("bConfigurationValue", "1\n");
        write("authorized", "1\n");
        write("manufacturer", "Example Vision\n");
        write("product", "Model\n");
        if (!serial.empty()) {
            write("serial", serial + "\n");
        }
        write("descriptors", std::string(descriptors.begin(), descriptors.end()));
        fs::create_symlink(fs::path("../../../devices/platform/hcd.0") / path, "/sys/bus/usb/devices/" + name);
    }
    void PlugCamera() {
        own.Run([] { MakeDevice("2-1", "usb2/2-1", 2, CameraDescriptors(true), "A"); });
    }
    void WriteUevents(int number) {
        own.Run([number] {
            for (int i = 0; i < number; ++i) {
                std::ofstream("/sys/real/class/net/lo/uevent") << "add" << std::flush;
            }
        });
    }
    void SendKernelForm(const std::string& properties) {
        own.Run([&] {
            const std::string message = "add@/devices/x\0"s + properties;
            const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
            sockaddr_nl to{};
            to.nl_family = AF_NETLINK;
            to.nl_groups = 1;
            EXPECT_EQ(::sendto(fd, message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                      static_cast<ssize_t>(message.size()));
            ::close(fd);
        });
    }
    void Start() {
        own.Run([this] {
            core = std::make_shared<Platform::Usb::UsbCore>(Platform::LinuxUsbOptions(), timings, states);
            ASSERT_EQ(core->Start(), HAL_OK);
        });
    }

    NetworkNamespace own;
    Platform::Usb::Timings timings;
    ReportedStates states;
    std::shared_ptr<Platform::Usb::UsbCore> core;
};

TEST_F(UsbOnARealKernel, ALookFollowsTheKernelsFormOfAUevent) {
    Start();
    PlugCamera();
    SendKernelForm("ACTION=add\0DEVPATH=/devices/platform/hcd.0/usb2/2-1\0SUBSYSTEM=usb\0DEVTYPE=usb_device\0"s);
    EXPECT_TRUE(states.WaitForDevices(1));
}

TEST_F(UsbOnARealKernel, ALookFollowsLostUevents) {
    timings.ueventBuffer = 1;  // the kernel makes it its least
    Start();
    // While the monitor is busy, more happens than the socket holds, and the camera's own event is not among it.
    states.Hold();
    SendKernelForm("ACTION=add\0DEVPATH=/devices/platform/hcd.0/usb2\0SUBSYSTEM=usb\0"s);
    ASSERT_TRUE(states.WaitForReports(2));
    PlugCamera();
    WriteUevents(100);
    states.Release();
    EXPECT_TRUE(states.WaitForDevices(1));
}

TEST_F(UsbOnARealKernel, NoLookFollowsUeventsOfOtherDevices) {
    Start();
    PlugCamera();
    const std::size_t reports = states.GetReports();
    WriteUevents(3);
    SendKernelForm("ACTION=add\0DEVPATH=/devices/platform/hcd.0/usb2/2-1\0SUBSYSTEM=usb\0"s);
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_EQ(states.GetReports(), reports + 1);
}

}  // namespace
}  // namespace Nimbrel2::Testing
