// SPDX-License-Identifier: Apache-2.0
// What the USB driver tells for diagnosis: devices, hubs, ports, speeds, claims, and what no listing shows.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/linux/usb/Inspect.h"
#include "platform/linux/usb/Map.h"
#include "tests/platform/usb/UsbFixture.h"
#include "tests/support/ChildProcess.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::UsbDeviceDiagnosis;
using Platform::UsbDiagnosis;
using testing::ElementsAre;
using testing::SizeIs;

class UsbDiagnoses : public UsbFixture {
public:
    UsbDiagnosis Diagnose() {
        UsbDiagnosis diagnosis;
        EXPECT_EQ(core->Diagnose(&diagnosis), HAL_OK);
        return diagnosis;
    }
    UsbDeviceDiagnosis Of(const std::string& name) {
        for (const UsbDeviceDiagnosis& device : Diagnose().devices) {
            if (device.name == name) {
                return device;
            }
        }
        ADD_FAILURE() << name << " is not there";
        return {};
    }
    void SetPort(const std::string& hub, unsigned int port, const std::string& attribute, const std::string& value) {
        bed.SetAttribute(hub, PortOf(hub, port) + "/" + attribute, value);
    }
    void SetPeer(const std::string& hub, unsigned int port, const std::string& peer) {
        bed.SetLink(hub, PortOf(hub, port) + "/peer", "../../somewhere/" + peer);
    }
    static std::string PortOf(const std::string& hub, unsigned int port) {
        const std::string interface = hub.rfind("usb", 0) == 0 ? hub.substr(3) + "-0" : hub;
        return interface + ":1.0/" + hub + "-port" + std::to_string(port);
    }
};

TEST_F(UsbDiagnoses, TellOfARecordedTreeWhereEverythingIs) {
    bed.AddRecording("superspeed-hub-chain.umockdev");
    Start();
    const UsbDiagnosis diagnosis = Diagnose();
    EXPECT_EQ(diagnosis.error, 0);
    EXPECT_TRUE(diagnosis.hearsUevents);
    std::vector<std::string> names;
    for (const UsbDeviceDiagnosis& device : diagnosis.devices) {
        names.push_back(device.name);
    }
    EXPECT_THAT(names, ElementsAre("usb1", "1-2", "1-2.4", "1-2.4.6", "1-2.4.6.8", "usb2", "2-1", "2-1.2", "2-1.2.3",
                                   "2-1.2.3.4", "2-1.2.3.4.5", "2-1.2.3.4.5.6"));
    const UsbDeviceDiagnosis root = Of("usb2");
    EXPECT_TRUE(root.isHub);
    EXPECT_EQ(root.hub, "");
    EXPECT_EQ(root.controller, "vhci_hcd.0");
    EXPECT_EQ(root.deviceId, 63u);
    EXPECT_THAT(root.ports, SizeIs(15));
    EXPECT_EQ(root.ports[0].device, "2-1");
    const UsbDeviceDiagnosis camera = Of("2-1.2.3.4.5.6");
    EXPECT_TRUE(camera.isCamera);
    EXPECT_TRUE(camera.isVision);
    EXPECT_TRUE(camera.isListed);
    EXPECT_EQ(camera.hub, "2-1.2.3.4.5");
    EXPECT_EQ(camera.port, 6);
    EXPECT_EQ(camera.deviceId, 283u);
    EXPECT_EQ(camera.bus, 2u);
    EXPECT_EQ(camera.number, 27u);
    EXPECT_EQ(camera.vendor, "Example Vision");
    EXPECT_EQ(camera.speed, 5000u);
    EXPECT_EQ(camera.deviceSpeed, 5000u);
    EXPECT_EQ(camera.portSpeed, 5000u);
    EXPECT_EQ(camera.node, "/dev/bus/usb/002/027");
    EXPECT_EQ(camera.nodeError, 0);
    EXPECT_EQ(camera.powerControl, "on");
    EXPECT_EQ(camera.suspendDelay, -1000);
    const UsbDeviceDiagnosis slow = Of("1-2.4.6.8");
    EXPECT_EQ(slow.speed, 480u);
    EXPECT_EQ(slow.deviceSpeed, 5000u) << "its USB3 Vision information says so";
    EXPECT_EQ(slow.portSpeed, 0u) << "the recording has no ports, and there is a SuperSpeed half";
    const UsbDeviceDiagnosis hub = Of("2-1");
    EXPECT_TRUE(hub.isHub);
    EXPECT_FALSE(hub.isCamera);
    EXPECT_EQ(hub.hub, "usb2");
    EXPECT_NE(hub.model, "");
}

TEST_F(UsbDiagnoses, TellWhatPortsSayOfThemselvesAndHowFastTheyCanBe) {
    bed.AddController(UsbTestbed::Pci, 1, 2, 2);
    bed.Add(Camera("1-2", 2, "A", false));
    bed.Add(Camera("1-1", 3, "B", false));
    for (unsigned int port = 1; port <= 2; ++port) {
        SetPort("usb1", port, "connect_type", port == 1 ? "hotplug" : "hardwired");
        SetPort("usb1", port, "over_current_count", port == 1 ? "0" : "3");
        SetPort("usb2", port, "connect_type", "hotplug");
    }
    SetPeer("usb1", 2, "usb2-port1");
    SetPeer("usb2", 1, "usb1-port2");
    bed.SetLink("usb1", PortOf("usb1", 2) + "/device", "../../../1-2");
    Start();
    const UsbDeviceDiagnosis root = Of("usb1");
    ASSERT_THAT(root.ports, SizeIs(2));
    EXPECT_EQ(root.ports[0].connectType, "hotplug");
    EXPECT_EQ(root.ports[0].peerHub, "");
    EXPECT_EQ(root.ports[1].connectType, "hardwired");
    EXPECT_EQ(root.ports[1].peerHub, "usb2");
    EXPECT_EQ(root.ports[1].peerPort, 1);
    EXPECT_EQ(root.ports[1].overCurrents, 3u);
    EXPECT_EQ(root.ports[1].device, "1-2");
    EXPECT_EQ(Of("1-2").portSpeed, 5000u) << "by the other half";
    EXPECT_EQ(Of("1-1").portSpeed, 480u) << "it has no other half";
    EXPECT_EQ(Of("1-2").deviceSpeed, 5000u) << "what its USB3 Vision information says";
}

TEST_F(UsbDiagnoses, OfAControllerWithoutASuperSpeedHalfSayThatItsPortsAreNoFaster) {
    bed.AddController(UsbTestbed::Pci, 1, 0);
    bed.Add(Camera("1-2", 2, "A", false));
    Start();
    EXPECT_EQ(Of("1-2").portSpeed, 480u);
}

TEST_F(UsbDiagnoses, KnowWhatAHubCouldDo) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    MockedDevice hub = Hub("1-1", 2, false);
    bed.Add(hub);
    hub = Hub("1-2", 3, false);
    hub.descriptors = HubDescriptors(0x0200);
    hub.speed = "12";
    bed.Add(hub);
    Start();
    EXPECT_EQ(Of("1-1").deviceSpeed, 5000u) << "version 2.10 is one half of a USB 3 hub";
    EXPECT_EQ(Of("1-2").deviceSpeed, 480u);
    EXPECT_EQ(Of("1-2").speed, 12u);
    EXPECT_EQ(Of("usb2").deviceSpeed, 5000u);
}

TEST_F(UsbDiagnoses, ShowCamerasThatAreNotListedAndWhy) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    MockedDevice camera = Camera("2-1", 2, "A");
    camera.attributes = {{"authorized", "0"}, {"bConfigurationValue", ""}};
    bed.Add(camera);
    Start();
    const UsbDeviceDiagnosis shown = Of("2-1");
    EXPECT_TRUE(shown.isCamera);
    EXPECT_FALSE(shown.isListed);
    EXPECT_FALSE(shown.isAuthorized);
    EXPECT_EQ(shown.configuration, 0u);
    EXPECT_EQ(shown.serial, "A");
}

TEST_F(UsbDiagnoses, NameTheProgramThatHasClaimedACamera) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "A"));
    bed.SetLink("2-1", "2-1:1.0/driver", "../../../../../../bus/usb/drivers/usbfs");
    bed.SetLink("2-1", "2-1:1.2/driver", "../../../../../../bus/usb/drivers/uvcvideo");
    Start();
    auto claims = Of("2-1").claims;
    ASSERT_THAT(claims, SizeIs(2));
    EXPECT_EQ(claims[0].interface, 0);
    EXPECT_TRUE(claims[0].isControl);
    EXPECT_EQ(claims[0].driver, "usbfs");
    EXPECT_EQ(claims[0].process, 0u) << "nobody has it open";
    EXPECT_EQ(claims[1].interface, 2);
    EXPECT_FALSE(claims[1].isControl);
    EXPECT_EQ(claims[1].driver, "uvcvideo");
}

TEST_F(UsbDiagnoses, SayWhyANodeMayNotBeOpened) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    EXPECT_EQ(Of("2-1").nodeError, 0);
    std::filesystem::remove(bed.RealPath("/dev/bus/usb/002/002"));
    EXPECT_EQ(Of("2-1").nodeError, ENOENT);
}

TEST_F(UsbDiagnoses, ReadPowerAndMemory) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    MockedDevice camera = Camera("2-1", 2, "A");
    camera.attributes = {
        {"power/control", "auto"}, {"power/autosuspend_delay_ms", "2000"}, {"power/runtime_status", "suspended"}};
    bed.Add(camera);
    Start();
    EXPECT_EQ(Diagnose().memoryLimit, std::nullopt);
    bed.SetFile("module/usbcore/parameters/usbfs_memory_mb", "16");
    EXPECT_EQ(Diagnose().memoryLimit, 16u);
    const UsbDeviceDiagnosis device = Of("2-1");
    EXPECT_EQ(device.powerControl, "auto");
    EXPECT_EQ(device.suspendDelay, 2000);
    EXPECT_EQ(device.runtimeStatus, "suspended");
}

TEST_F(UsbDiagnoses, RaiseNothing) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    timings.quiet = 3600s;
    timings.longestBurst = 3600s;
    Start();
    const std::size_t reports = states.GetReports();
    bed.Add(Camera("2-1", 2, "A"));
    Diagnose();
    EXPECT_EQ(states.GetReports(), reports);
}

TEST_F(UsbDiagnoses, MapWhatIsAttachedToEachController) {
    bed.AddRecording("superspeed-hub-chain.umockdev");
    bed.AddController(UsbTestbed::Pci, 0, 3);
    bed.Add(Camera("3-2", 2, "7"));
    Start();
    const std::vector<Platform::BusMap> maps = Platform::Usb::MapControllers(Diagnose().devices);
    ASSERT_THAT(maps, SizeIs(2));
    EXPECT_EQ(maps[0].name, "0000:00:14.0");
    ASSERT_THAT(maps[0].nodes, SizeIs(1));
    const Platform::BusMapNode& alone = maps[0].nodes[0];
    EXPECT_TRUE(alone.isCamera);
    EXPECT_EQ(alone.serialNumber, 7u);
    EXPECT_EQ(alone.parent, 63u);
    EXPECT_EQ(alone.port, 2u);
    EXPECT_EQ(alone.path, "3-2");
    EXPECT_EQ(alone.deviceSpeed, 5000u);
    EXPECT_EQ(alone.portSpeed, 5000u);
    EXPECT_EQ(maps[1].bus, HAL_INTERFACE_USB);
    EXPECT_EQ(maps[1].name, "vhci_hcd.0");
    ASSERT_THAT(maps[1].nodes, SizeIs(10)) << "both halves, without their root hubs";
    const Platform::BusMapNode& hub = maps[1].nodes[8];
    EXPECT_TRUE(hub.isHub);
    EXPECT_FALSE(hub.isCamera);
    EXPECT_EQ(hub.name, "Example Vision Sim Hub");
    EXPECT_EQ(hub.path, "2-1.2.3.4.5");
    const Platform::BusMapNode& camera = maps[1].nodes[9];
    EXPECT_EQ(camera.id, 283u);
    EXPECT_EQ(camera.parent, hub.id);
    EXPECT_EQ(camera.port, 6u);
    EXPECT_EQ(camera.speed, 5000u);
    EXPECT_EQ(camera.vendor, "Example Vision");
}

TEST(UsbPortName, IsTakenApart) {
    std::string hub;
    std::uint8_t port = 0;
    EXPECT_TRUE(Platform::Usb::ParsePortName("usb2-port15", &hub, &port));
    EXPECT_EQ(hub, "usb2");
    EXPECT_EQ(port, 15);
    EXPECT_TRUE(Platform::Usb::ParsePortName("2-1.4-port3", &hub, &port));
    EXPECT_EQ(hub, "2-1.4");
    EXPECT_EQ(port, 3);
    for (const char* name :
         {"", "-port1", "usb2-port", "usb2-port0", "usb2-port256", "usb2-portx", "usb2", "x-port1"}) {
        EXPECT_FALSE(Platform::Usb::ParsePortName(name, &hub, &port)) << name;
    }
}

}  // namespace
}  // namespace Nimbrel2::Testing
