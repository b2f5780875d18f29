// SPDX-License-Identifier: Apache-2.0
// Stories on whole rigs: the bus master above, the rig below, nothing in between left out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "busmaster/BusMaster.h"
#include "common/IEEE1394Interface.h"
#include "platform/Platform.h"
#include "platform/rig/RigFile.h"

namespace Nimbrel2 {
namespace {

using Platform::CableEnd;
using Platform::Rig;
using testing::Contains;
using testing::UnorderedElementsAre;

constexpr unsigned int kPatience = 10000;  // ms

// card - hub (six ports); cameras 1 and 2, a disk; a USB and a GigE camera beside them.
const char kRig[] = R"({
  "firewire": [{"name": "fw0",
    "phys": [{"name": "card", "kind": "card", "ports": 3, "eui64": "0x0800460102030405", "contender": true},
             {"name": "hub", "kind": "repeater", "ports": 6},
             {"name": "one", "ports": 2, "eui64": "0x0011880000000001", "vendor": "Acme", "model": "Story"},
             {"name": "two", "ports": 2, "eui64": "0x0011880000000002", "vendor": "Acme", "model": "Story"},
             {"name": "three", "ports": 2, "eui64": "0x0011880000000003", "vendor": "Acme", "model": "Story", "plugged": false},
             {"name": "four", "ports": 2, "eui64": "0x0011880000000004", "vendor": "Acme", "model": "Story", "plugged": false},
             {"name": "disk", "kind": "device", "eui64": "0x0030E00102AABB01"}],
    "cables": [[["card", 0], ["hub", 5]], [["hub", 3], ["one", 0]], [["hub", 4], ["two", 0]],
               [["hub", 0], ["three", 0]], [["hub", 1], ["four", 0]], [["card", 1], ["disk", 0]]]}],
  "usb": [{"name": "x", "devices": [{"name": "usb", "parent": "x", "port": 1, "serial": "100"}]}],
  "gige": [{"name": "e", "address": "192.168.77.1/24", "cameras": [
    {"name": "net", "mac": "02:00:00:00:00:0a", "address": "192.168.77.10/24", "serial": "200"},
    {"name": "far", "mac": "02:00:00:00:00:0b", "address": "10.9.9.9/24", "serial": "201"}]}],
  "virtualCameras": [1, 300]
})";

// What was called back, in whatever order.
class Record {
public:
    static void OnReset(void* self, unsigned int) { ++static_cast<Record*>(self)->m_resets; }
    static void OnArrival(void* self, unsigned int serial) { static_cast<Record*>(self)->Add('+', serial); }
    static void OnRemoval(void* self, unsigned int serial) { static_cast<Record*>(self)->Add('-', serial); }

    std::vector<std::string> Take() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_events, {});
    }
    unsigned int TakeResets() { return m_resets.exchange(0); }

private:
    void Add(char sign, unsigned int serial) {
        const std::lock_guard lock(m_mutex);
        m_events.push_back(sign + std::to_string(serial));
    }

    std::atomic<unsigned int> m_resets{0};
    std::mutex m_mutex;
    std::vector<std::string> m_events;
};

class RigStory : public testing::Test {
protected:
    RigStory() : m_rig(std::make_shared<Rig>(Platform::ParseRig(kRig, "story").rig)) {
        Platform::Options options;
        options.fireWire = options.usb = options.gigE = Platform::Driver::Rig;
        options.rig = m_rig;
        m_rig->SetFast(true);
        EXPECT_TRUE(Platform::Configure(options));
        m_busMaster = std::make_unique<BusMaster>();
    }

    void Start() {
        ASSERT_EQ(m_busMaster->Initialize().GetType(), ERROR_OK);
        ASSERT_TRUE(m_busMaster->GetInitialized());
        void* handle = nullptr;
        m_busMaster->RegisterCallback(&Record::OnReset, BUS_RESET, &m_record, &handle);
        m_busMaster->RegisterCallback(&Record::OnArrival, ARRIVAL, &m_record, &handle);
        m_busMaster->RegisterCallback(&Record::OnRemoval, REMOVAL, &m_record, &handle);
        // A rescan asked for before the worker first idles is lost, as it may be.
        ASSERT_TRUE(m_busMaster->WaitUntilQuiet(kPatience));
    }

    void Settle() {
        ASSERT_TRUE(Platform::WaitUntilEventsAreDelivered(std::chrono::milliseconds(kPatience)));
        ASSERT_TRUE(m_busMaster->WaitUntilQuiet(kPatience));
    }

    std::multiset<unsigned int> Listed() {
        std::multiset<unsigned int> serials;
        unsigned int count = 0;
        m_busMaster->GetNumOfCameras(&count);
        for (unsigned int i = 0; i < count; ++i) {
            unsigned int serial = 0;
            if (!(m_busMaster->GetCameraSerialNumberFromIndex(i, &serial) != ERROR_OK)) serials.insert(serial);
        }
        return serials;
    }

    ZevoGuid GuidOf(unsigned int serial) {
        ZevoGuid guid;
        m_busMaster->GetCameraFromSerialNumber(serial, &guid);
        return guid;
    }

    IEEE1394Interface* FireWireOf(unsigned int serial) {
        HardwareInterface* hw = nullptr;
        m_busMaster->GetHwInterfaceFromSerialNumber(serial, &hw);
        return dynamic_cast<IEEE1394Interface*>(hw);
    }

    std::uint32_t IsoEnable(std::uint64_t eui64) {
        return m_rig->WithFireWire([eui64](std::vector<Platform::FireWireModel>& buses) {
            std::uint32_t value = 0;
            buses.front().ReadQuadlet(eui64, 0xFFFFF0F00614, &value);
            return value;
        });
    }

    const std::shared_ptr<Rig> m_rig;
    Record m_record;
    std::unique_ptr<BusMaster> m_busMaster;
};

TEST_F(RigStory, ListsTheCamerasOfAllBusesInTheirOrder) {
    Start();
    EXPECT_THAT(Listed(), UnorderedElementsAre(1U, 2U, 100U, 200U)) << "the one on a foreign subnet is not reached";
    unsigned int devices = 0;
    EXPECT_FALSE(m_busMaster->GetNumOfDevices(&devices) != ERROR_OK);
    EXPECT_EQ(devices, 1U);
    for (unsigned int i = 0; i < 4; ++i) {
        static constexpr unsigned int inOrder[] = {1, 2, 100, 200};
        unsigned int serial = 0;
        m_busMaster->GetCameraSerialNumberFromIndex(i, &serial);
        EXPECT_EQ(serial, inOrder[i]);
    }
}

TEST_F(RigStory, TellsOfACameraThatIsUnpluggedAndForgetsIt) {
    Start();
    ASSERT_EQ(m_rig->Unplug("two"), std::nullopt);
    Settle();
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-2"));
    EXPECT_GE(m_record.TakeResets(), 1U);
    EXPECT_THAT(Listed(), UnorderedElementsAre(1U, 100U, 200U));
    ZevoGuid guid;
    const Error error = m_busMaster->GetCameraFromSerialNumber(2, &guid);
    EXPECT_EQ(error.GetType(), ERROR_FAILED);
    EXPECT_STREQ(error.GetMessage(), "Camera with specified serial number was not found.");
    EXPECT_EQ(m_busMaster->GetGeneration(2), 1U);
}

TEST_F(RigStory, KeepsHandleGuidAndInterfaceOfACameraThatMovesFromNode2ToNode5AndSwitchesIsoOnAgain) {
    Start();
    // disk 0 and card 1 come first; camera one is node 2, camera two node 3, the hub the root.
    IEEE1394Interface* const camera = FireWireOf(1);
    ASSERT_NE(camera, nullptr);
    unsigned short node = 0;
    camera->GetCameraNode(&node);
    const unsigned short before = node;
    const ZevoGuid guid = GuidOf(1);
    camera->isoEnabled = true;
    m_rig->WithFireWire([](std::vector<Platform::FireWireModel>& buses) {
        buses.front().WriteQuadlet(0x0011880000000001, 0xFFFFF0F00614, 0);
    });

    ASSERT_EQ(m_rig->Plug("three"), std::nullopt);
    Settle();
    ASSERT_EQ(m_rig->Plug("four"), std::nullopt);
    Settle();
    ASSERT_EQ(m_rig->Move("one", 0, CableEnd{"two", 1}), std::nullopt);
    Settle();

    EXPECT_EQ(FireWireOf(1), camera) << "the same interface object";
    EXPECT_TRUE(GuidOf(1) == guid);
    camera->GetCameraNode(&node);
    const unsigned int now = m_rig->WithFireWire(
        [](std::vector<Platform::FireWireModel>& buses) { return buses.front().FindNode(0x0011880000000001)->phyId; });
    EXPECT_EQ(node, now);
    EXPECT_NE(node, before);
    EXPECT_EQ(IsoEnable(0x0011880000000001), 0x80000000U);
    EXPECT_EQ(IsoEnable(0x0011880000000002), 0U) << "nobody had that one's transmission running";
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+3", "+4"));
}

TEST_F(RigStory, NoticesNothingOfAReplugThatIsOverBeforeItLooks) {
    Start();
    const ZevoGuid guid = GuidOf(1);
    IEEE1394Interface* const camera = FireWireOf(1);
    ASSERT_EQ(m_rig->Unplug("one"), std::nullopt);
    ASSERT_EQ(m_rig->Plug("one"), std::nullopt);
    Settle();
    EXPECT_TRUE(GuidOf(1) == guid);
    std::uint32_t value = 0;
    EXPECT_EQ(camera->ReadRegister(0xF0000410, 0xFFFFFFFF, &value), HAL_OK) << "and the old interface works on";
    EXPECT_EQ(value, 1U);
    for (const std::string& event : m_record.Take())
        EXPECT_THAT((std::vector<std::string>{"-1", "+1"}), Contains(event));
}

TEST_F(RigStory, CoalescesAStormAndLosesNothing) {
    Start();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(m_rig->ResetBus("fw0", 100), std::nullopt);
        ASSERT_EQ(m_rig->Unplug("two"), std::nullopt);
        ASSERT_EQ(m_rig->ResetBus("fw0", 100), std::nullopt);
        Settle();
        EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-2"));
        EXPECT_LT(m_record.TakeResets(), 50U) << "hundreds of resets are a few";
        ASSERT_EQ(m_rig->Plug("two"), std::nullopt);
        Settle();
        EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+2"));
        m_record.TakeResets();
    }
}

TEST_F(RigStory, SwitchesIsoOnAgainAfterABusError) {
    Start();
    FireWireOf(1)->isoEnabled = true;
    ASSERT_EQ(m_rig->FailBus("fw0"), std::nullopt);
    Settle();
    EXPECT_EQ(IsoEnable(0x0011880000000001), 0x80000000U);
    EXPECT_EQ(IsoEnable(0x0011880000000002), 0U);
    EXPECT_THAT(m_record.Take(), testing::IsEmpty());
}

TEST_F(RigStory, CountsEventsOfADeviceOnItsInterface) {
    Start();
    ZevoGuid guid;
    ASSERT_FALSE(m_busMaster->GetDeviceFromIndex(0, &guid) != ERROR_OK);
    ASSERT_EQ(m_rig->Unplug("disk"), std::nullopt);
    Settle();
    unsigned int devices = 1;
    m_busMaster->GetNumOfDevices(&devices);
    EXPECT_EQ(devices, 0U);
    ASSERT_EQ(m_rig->Plug("disk"), std::nullopt);
    Settle();
    ZevoGuid again;
    ASSERT_FALSE(m_busMaster->GetDeviceFromIndex(0, &again) != ERROR_OK);
    EXPECT_TRUE(again == guid);
}

TEST_F(RigStory, ListsVirtualCamerasWhoseNumbersCollideWithNone) {
    m_busMaster->EnableVirtualDeviceEnumeration();
    Start();
    m_busMaster->DisableVirtualDeviceEnumeration();
    EXPECT_THAT(Listed(), UnorderedElementsAre(1U, 2U, 3U, 300U, 100U, 200U)) << "1 is taken, 2 as well";
}

TEST_F(RigStory, KeepsTheOtherBusesWhenOneListingIsRefused) {
    Start();
    m_rig->AddFault({"HAL_1394GetCameras", 1, HAL_REFUSED, {}});
    m_busMaster->RescanBus();
    ASSERT_TRUE(m_busMaster->WaitUntilQuiet(kPatience));
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-1", "-2"));
    EXPECT_THAT(Listed(), UnorderedElementsAre(100U, 200U));
    m_busMaster->RescanBus();
    ASSERT_TRUE(m_busMaster->WaitUntilQuiet(kPatience));
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+1", "+2"));
}

TEST_F(RigStory, FindsAGigECameraOnceItHasAnAddressOfThisSubnet) {
    Start();
    EXPECT_EQ(HAL_GvcpForceIpAuto(), HAL_OK);
    Settle();
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+201"));
    ZevoGuid guid;
    EXPECT_FALSE(m_busMaster->GetCameraFromIPAddress(IPAddress{{192, 168, 77, 2}}, &guid) != ERROR_OK);
    EXPECT_TRUE(GuidOf(201) == guid);
}

TEST_F(RigStory, LeavesAGigECameraToTheHostThatHoldsIt) {
    Start();
    ASSERT_EQ(m_rig->Hold("net", {{0xC0A84DC8, 5000}, true}), std::nullopt);
    m_busMaster->RescanBus();
    ASSERT_TRUE(m_busMaster->WaitUntilQuiet(kPatience));
    EXPECT_THAT(Listed(), Contains(200U)) << "it may still be watched";
    EXPECT_THAT(m_record.Take(), testing::IsEmpty());
}

TEST_F(RigStory, LosesEveryGigECameraWithTheLinkAndFindsThemAgain) {
    Start();
    ASSERT_EQ(m_rig->SetLink("e", false), std::nullopt);
    Settle();
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-200"));
    ASSERT_EQ(m_rig->SetLink("e", true), std::nullopt);
    Settle();
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+200"));
}

TEST_F(RigStory, StandsEightThreadsOfLookUpsWhileTheBusesChange) {
    Start();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([this, &stop] {
            while (!stop) {
                ZevoGuid guid;
                CameraInfo info;
                InterfaceType type = INTERFACE_NONE;
                m_busMaster->GetCameraFromIndex(0, &guid);
                m_busMaster->GetCameraInfo(guid, &info);
                m_busMaster->GetInterfaceTypeFromGuid(guid, &type);
                m_busMaster->GetCameraFromIPAddress(IPAddress{{192, 168, 77, 10}}, &guid);
            }
        });
    }
    for (int i = 0; i < 10; ++i) {
        m_rig->Unplug("one");
        m_rig->ResetBus("x", 3);
        m_rig->Unplug("net");
        Settle();
        EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-1", "-200"));
        m_rig->Plug("one");
        m_rig->Plug("net");
        Settle();
        EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+1", "+200"));
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

TEST_F(RigStory, HandlesThreeResetsDuringOneCycleInOneMore) {
    Start();
    // The cycle stands in the listing while three resets come in, each on its own.
    m_rig->SetFast(false);
    m_rig->AddFault({"HAL_UsbGetCameras", 1, HAL_OK, std::chrono::milliseconds(400)});
    std::thread rescan([this] { m_busMaster->RescanBus(); });
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(m_rig->ResetBus("fw0"), std::nullopt);
        ASSERT_TRUE(Platform::WaitUntilEventsAreDelivered(std::chrono::milliseconds(kPatience)));
    }
    rescan.join();
    Settle();
    EXPECT_LE(m_record.TakeResets(), 3U) << "the cycle itself, and at most two for what came after it had begun";
    EXPECT_THAT(m_record.Take(), testing::IsEmpty());
}

TEST_F(RigStory, StartsWithFiveHundredAndTwelveCameras) {
    Platform::RigDescription description;
    for (unsigned int bus = 0; bus < 5; ++bus) {
        Platform::FireWireBusDescription fireWire;
        fireWire.name = "fw" + std::to_string(bus);
        const auto add = [&fireWire, bus](const std::string& name, Platform::PhyKind kind, unsigned int ports) {
            Platform::PhyDescription phy;
            phy.name = name;
            phy.kind = kind;
            phy.ports = ports;
            phy.eui64 = kind == Platform::PhyKind::Repeater ? 0 : (bus + 1) * 1000 + fireWire.phys.size();
            fireWire.phys.push_back(phy);
        };
        const std::string suffix = " " + std::to_string(bus);
        add("card" + suffix, Platform::PhyKind::Card, 3);
        for (unsigned int hub = 0; hub < 3; ++hub) {
            add("hub " + std::to_string(hub) + suffix, Platform::PhyKind::Repeater, 27);
            fireWire.cables.push_back({{{"card" + suffix, hub}, {"hub " + std::to_string(hub) + suffix, 0}}});
        }
        for (unsigned int camera = 0; camera < 52 && bus * 52 + camera < 256; ++camera) {
            const std::string name = "camera " + std::to_string(camera) + suffix;
            add(name, Platform::PhyKind::Camera, 1);
            fireWire.cables.push_back({{{"hub " + std::to_string(camera / 26) + suffix, 1 + camera % 26}, {name, 0}}});
        }
        description.fireWire.push_back(std::move(fireWire));
    }
    for (unsigned int host = 0; host < 16; ++host) {
        Platform::UsbHostDescription usb;
        usb.name = "usb" + std::to_string(host);
        usb.usb3Ports = 8;
        for (unsigned int port = 1; port <= 8; ++port) {
            Platform::UsbDeviceDescription camera;
            camera.name = usb.name + " camera " + std::to_string(port);
            camera.parent = usb.name;
            camera.port = port;
            camera.serial = std::to_string(100000 + host * 8 + port);
            usb.devices.push_back(camera);
        }
        description.usb.push_back(std::move(usb));
    }
    Platform::NetworkInterfaceDescription network{"eth0", 0x0A000001, 0xFF000000, true, {}};
    for (unsigned int i = 0; i < 128; ++i) {
        Platform::GigECameraDescription camera;
        camera.name = "net " + std::to_string(i);
        camera.options.mac = 0x020000000100 + i;
        camera.options.address = 0x0A000100 + i;
        camera.options.serialNumber = std::to_string(200000 + i);
        network.cameras.push_back(camera);
    }
    description.gigE.push_back(std::move(network));
    ASSERT_TRUE(Rig::Validate(description).empty());

    m_busMaster.reset();
    Platform::Options options;
    options.fireWire = options.usb = options.gigE = Platform::Driver::Rig;
    options.rig = std::make_shared<Rig>(std::move(description));
    ASSERT_TRUE(Platform::Configure(options));
    m_busMaster = std::make_unique<BusMaster>();
    Start();
    unsigned int count = 0;
    EXPECT_FALSE(m_busMaster->GetNumOfCameras(&count) != ERROR_OK);
    EXPECT_EQ(count, 512U);
}

TEST_F(RigStory, RefusesWhatCannotHappen) {
    EXPECT_NE(m_rig->Plug("one"), std::nullopt);
    EXPECT_NE(m_rig->Plug("nobody"), std::nullopt);
    EXPECT_NE(m_rig->Unplug("three"), std::nullopt);
    EXPECT_NE(m_rig->Unplug("nobody"), std::nullopt);
    EXPECT_NE(m_rig->Move("nobody", 0, {"hub", 0}), std::nullopt);
    EXPECT_NE(m_rig->Move("net", 0, {"elsewhere", 0}), std::nullopt);
    EXPECT_NE(m_rig->ResetBus("e"), std::nullopt);
    EXPECT_NE(m_rig->FailBus("nobody"), std::nullopt);
    EXPECT_NE(m_rig->SetLink("fw0", true), std::nullopt);
    EXPECT_NE(m_rig->SetAddress("usb", 1, 2, 3), std::nullopt);
    EXPECT_NE(m_rig->Release("nobody"), std::nullopt);
}

}  // namespace
}  // namespace Nimbrel2
