// SPDX-License-Identifier: Apache-2.0
// Stories on whole rigs: the bus master above, the rig below, nothing in between left out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "busmaster/BusMaster.h"
#include "common/GigEInterface.h"
#include "common/IEEE1394Interface.h"
#include "hal/HAL.h"
#include "platform/Platform.h"
#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"
#include "tests/support/LargeRig.h"
#include "tests/support/TraceRecorder.h"

namespace Nimbrel2 {
namespace {

using Platform::CableEnd;
using Platform::Rig;
using testing::Contains;
using testing::UnorderedElementsAre;

// All that hal/HAL.h declares.
std::set<std::string> FunctionsOfTheHal() {
    std::ifstream header(NIMBREL2_HAL_HEADER);
    const std::string type = "NIMBREL2_API uint32_t ";
    std::set<std::string> names;
    for (std::string line; std::getline(header, line);) {
        if (line.starts_with(type + "HAL_")) {
            names.insert(line.substr(type.size(), line.find('(') - type.size()));
        }
    }
    return names;
}

void* FirstOf(std::uint32_t (*list)(void**, std::uint64_t*)) {
    std::array<void*, 256> entries{};
    std::uint64_t count = entries.size();
    EXPECT_EQ(list(entries.data(), &count), HAL_OK);
    return entries[0];
}

constexpr unsigned int Patience = 10000;  // ms

// card - hub (six ports); cameras 1 and 2, a disk; a USB and a GigE camera beside them.
const char TestRig[] = R"({
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

// Eight threads that look cameras up, while they live.
class LookUps {
public:
    explicit LookUps(BusMaster& busMaster) {
        for (int i = 0; i < 8; ++i) {
            m_threads.emplace_back([this, &busMaster] {
                while (!m_stop) {
                    ZevoGuid guid;
                    CameraInfo info;
                    InterfaceType type = INTERFACE_NONE;
                    busMaster.GetCameraFromIndex(0, &guid);
                    busMaster.GetCameraInfo(guid, &info);
                    busMaster.GetInterfaceTypeFromGuid(guid, &type);
                    busMaster.GetCameraFromIPAddress(IPAddress{{192, 168, 77, 10}}, &guid);
                }
            });
        }
    }
    ~LookUps() {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

class RigStory : public testing::Test {
protected:
    RigStory() { Use(Platform::ParseRig(TestRig, "story").rig); }

    void Use(Platform::RigDescription description) {
        m_busMaster.reset();
        m_rig = std::make_shared<Rig>(std::move(description));
        m_rig->SetFast(true);
        Platform::Options options;
        options.fireWire = options.usb = options.gigE = Platform::Driver::Rig;
        options.makeDrivers = Platform::MakeRigDrivers(m_rig);
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
        ASSERT_TRUE(m_busMaster->WaitUntilQuiet(Patience));
    }

    void Settle() {
        ASSERT_TRUE(Platform::WaitUntilEventsAreDelivered(std::chrono::milliseconds(Patience)));
        ASSERT_TRUE(m_busMaster->WaitUntilQuiet(Patience));
    }

    std::multiset<unsigned int> Listed() {
        std::multiset<unsigned int> serials;
        unsigned int count = 0;
        m_busMaster->GetNumOfCameras(&count);
        for (unsigned int i = 0; i < count; ++i) {
            unsigned int serial = 0;
            if (!(m_busMaster->GetCameraSerialNumberFromIndex(i, &serial) != ERROR_OK)) {
                serials.insert(serial);
            }
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

    std::shared_ptr<Rig> m_rig;
    Record m_record;
    std::unique_ptr<BusMaster> m_busMaster;
};

// Each story alone, and with look-ups beside it.
class RigStories : public RigStory, public testing::WithParamInterface<bool> {
protected:
    void Start() {
        RigStory::Start();
        if (GetParam()) {
            m_lookUps = std::make_unique<LookUps>(*m_busMaster);
        }
    }

    std::unique_ptr<LookUps> m_lookUps;
};

INSTANTIATE_TEST_SUITE_P(Both, RigStories, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& row) { return row.param ? "BesideLookUps" : "Alone"; });

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

TEST_P(RigStories, TellsOfACameraThatIsUnpluggedAndForgetsIt) {
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

// The whole road of one event, from the cable to the look-up that finds nothing.
TEST_P(RigStories, FollowsAnUnpluggedCameraFromTheBusToTheUser) {
    Start();
    IEEE1394Interface* const stays = FireWireOf(2);
    const ZevoGuid staysGuid = GuidOf(2);
    const ZevoGuid leavesGuid = GuidOf(1);
    unsigned short nodeBefore = 0;
    stays->GetCameraNode(&nodeBefore);
    BusMasterHandle* handle = nullptr;
    ASSERT_EQ(m_busMaster->GetHandleFromGuid(leavesGuid, &handle).GetType(), ERROR_OK);
    const boost::weak_ptr<HardwareInterface> leaves = handle->hwInterface;

    Testing::TraceRecorder trace;
    ASSERT_EQ(m_rig->Unplug("one"), std::nullopt);
    Settle();

    const std::vector<std::string> lines = trace.Lines();
    const auto at = [&lines](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    const std::string event = "Bus event: Bus reset on 1394 interface";
    const std::string wake = "BusMaster wake up event triggered";
    const std::string merge = "Updating camera list. Current size: 4, new size: 3";
    EXPECT_THAT(lines, testing::IsSupersetOf({event, wake, merge}));
    EXPECT_LT(at(event), at(wake));
    EXPECT_LT(at(wake), at(merge));
    EXPECT_GE(m_record.TakeResets(), 1U);
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-1"));
    m_lookUps.reset();  // one of them may hold it for a moment
    EXPECT_TRUE(leaves.expired()) << "its interface is released and its handle freed";
    EXPECT_EQ(m_busMaster->GetHandleFromGuid(leavesGuid, &handle).GetType(), ERROR_NOT_FOUND);
    EXPECT_TRUE(GuidOf(2) == staysGuid);
    EXPECT_EQ(FireWireOf(2), stays);
    unsigned short node = 0;
    stays->GetCameraNode(&node);
    EXPECT_EQ(node, nodeBefore - 1) << "the new node number is copied into the camera that stays";
    ZevoGuid guid = staysGuid;
    const Error error = m_busMaster->GetCameraFromSerialNumber(1, &guid);
    EXPECT_EQ(error.GetType(), ERROR_FAILED);
    EXPECT_STREQ(error.GetMessage(), "Camera with specified serial number was not found.");
    EXPECT_TRUE(guid == ZevoGuid());
}

// A node takes its number after its children, lowest port first, and the card is the root: on this bus one is node 2 of
// 0 to 7, and on the right hub it is node 5.
constexpr char TwoHubs[] = R"({
  "firewire": [{"name": "fw0",
    "phys": [{"name": "card", "kind": "card", "ports": 3, "eui64": "0x0800460102030405", "contender": true},
             {"name": "left", "kind": "repeater", "ports": 6}, {"name": "right", "kind": "repeater", "ports": 6},
             {"name": "one", "ports": 2, "eui64": "0x0011880000000001"},
             {"name": "two", "ports": 2, "eui64": "0x0011880000000002"},
             {"name": "three", "ports": 2, "eui64": "0x0011880000000003"},
             {"name": "four", "ports": 2, "eui64": "0x0011880000000004"},
             {"name": "five", "ports": 2, "eui64": "0x0011880000000005"}],
    "cables": [[["card", 0], ["left", 5]], [["card", 1], ["right", 5]], [["left", 0], ["two", 0]],
               [["left", 1], ["three", 0]], [["left", 2], ["one", 0]], [["right", 0], ["four", 0]],
               [["right", 1], ["five", 0]]]}]
})";

TEST_P(RigStories, KeepsHandleGuidAndInterfaceOfACameraThatMovesFromNode2ToNode5AndSwitchesIsoOnAgain) {
    Use(Platform::ParseRig(TwoHubs, "two hubs").rig);
    Start();
    IEEE1394Interface* const camera = FireWireOf(1);
    ASSERT_NE(camera, nullptr);
    const ZevoGuid guid = GuidOf(1);
    BusMasterHandle* handle = nullptr;
    ASSERT_EQ(m_busMaster->GetHandleFromGuid(guid, &handle).GetType(), ERROR_OK);
    unsigned short node = 0;
    camera->GetCameraNode(&node);
    EXPECT_EQ(node, 2U);
    camera->isoEnabled = true;

    ASSERT_EQ(m_rig->Move("one", 0, CableEnd{"right", 2}), std::nullopt);
    Settle();

    EXPECT_EQ(FireWireOf(1), camera) << "the same interface object";
    EXPECT_TRUE(GuidOf(1) == guid);
    BusMasterHandle* now = nullptr;
    EXPECT_EQ(m_busMaster->GetHandleFromGuid(guid, &now).GetType(), ERROR_OK);
    EXPECT_EQ(now, handle);
    camera->GetCameraNode(&node);
    EXPECT_EQ(node, 5U);
    EXPECT_EQ(IsoEnable(0x0011880000000001), 0x80000000U);
    EXPECT_EQ(IsoEnable(0x0011880000000002), 0U) << "nobody had that one's transmission running";
    EXPECT_THAT(m_record.Take(), testing::IsEmpty());
}

TEST_P(RigStories, NoticesNothingOfAReplugThatIsOverBeforeItLooks) {
    Start();
    const ZevoGuid guid = GuidOf(1);
    std::vector<std::string> events;
    IEEE1394Interface* camera = nullptr;
    int replugs = 0;
    do {
        ASSERT_LT(++replugs, 100) << "each was seen half-way";
        camera = FireWireOf(1);
        ASSERT_EQ(m_rig->Unplug("one"), std::nullopt);
        ASSERT_EQ(m_rig->Plug("one"), std::nullopt);
        Settle();
        EXPECT_TRUE(GuidOf(1) == guid);
        events = m_record.Take();
        if (!events.empty()) {
            EXPECT_THAT(events, UnorderedElementsAre("-1", "+1"));
        }
    } while (!events.empty());
    std::uint32_t value = 0;
    EXPECT_EQ(camera->ReadRegister(0xF0000410, 0xFFFFFFFF, &value), HAL_OK) << "and the old interface works on";
    EXPECT_EQ(value, 1U);
}

TEST_P(RigStories, CoalescesAStormAndLosesNothing) {
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

TEST_P(RigStories, SwitchesIsoOnAgainAfterABusError) {
    Start();
    FireWireOf(1)->isoEnabled = true;
    ASSERT_EQ(m_rig->FailBus("fw0"), std::nullopt);
    Settle();
    EXPECT_EQ(IsoEnable(0x0011880000000001), 0x80000000U);
    EXPECT_EQ(IsoEnable(0x0011880000000002), 0U);
    EXPECT_THAT(m_record.Take(), testing::IsEmpty());
}

TEST_P(RigStories, CountsEventsOfADeviceOnItsInterface) {
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
    ASSERT_TRUE(m_busMaster->WaitUntilQuiet(Patience));
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-1", "-2"));
    EXPECT_THAT(Listed(), UnorderedElementsAre(100U, 200U));
    m_busMaster->RescanBus();
    ASSERT_TRUE(m_busMaster->WaitUntilQuiet(Patience));
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+1", "+2"));
}

TEST_F(RigStory, MakesEveryHalFunctionAnswerWhatAFaultSays) {
    const std::vector<std::string>& functions = Platform::RigFaultFunctions();
    EXPECT_EQ(std::set<std::string>(functions.begin(), functions.end()), FunctionsOfTheHal());
    // Each takes its second call's answer from the rig, and none another's.
    m_busMaster.reset();
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    void* camera = FirstOf(HAL_1394GetCameras);
    void* device = FirstOf(HAL_1394GetDevices);
    void* usb = FirstOf(HAL_UsbGetCameras);
    void* net = FirstOf(HAL_GigEGetCameras);
    std::array<std::uint32_t, 5> words{};
    std::array<char, 64> first{}, second{};
    std::uint32_t firstSize = 64, secondSize = 64;
    std::uint16_t node = 0, bus = 0;
    std::uint64_t count = 0, key = 0;
    std::uint32_t small = 0;
    GvcpDiscoveryRecord record{};
    void* registration = &record;
    void* entries[256] = {};
    const auto ignore = [](HALBusEvent, void*, HALInterfaceType, unsigned int, unsigned int, unsigned int) {};
    std::uint32_t* const w = words.data();
    const std::map<std::string, std::function<std::uint32_t()>> calls{
        {"HAL_1394GetCameras", [&] { return HAL_1394GetCameras(entries, &(count = 256)); }},
        {"HAL_1394GetVirtualCameras", [&] { return HAL_1394GetVirtualCameras(entries, nullptr, &(count = 0)); }},
        {"HAL_1394GetDevices", [&] { return HAL_1394GetDevices(entries, &(count = 256)); }},
        {"HAL_UsbGetCameras", [&] { return HAL_UsbGetCameras(entries, &(count = 256)); }},
        {"HAL_GigEGetCameras", [&] { return HAL_GigEGetCameras(entries, &(count = 256)); }},
        {"HAL_1394FreeCamera", [&] { return HAL_1394FreeCamera(camera); }},
        {"HAL_1394FreeDevice", [&] { return HAL_1394FreeDevice(device); }},
        {"HAL_UsbFreeCamera", [&] { return HAL_UsbFreeCamera(usb); }},
        {"HAL_GigEFreeCamera", [&] { return HAL_GigEFreeCamera(net); }},
        {"HAL_GigEGetCameraIpAddress", [&] { return HAL_GigEGetCameraIpAddress(net, w); }},
        {"HAL_1394RegisterBusEvents", [&] { return HAL_1394RegisterBusEvents(&registration, ignore, w); }},
        {"HAL_UsbRegisterBusEvents", [&] { return HAL_UsbRegisterBusEvents(&registration, ignore, w); }},
        {"HAL_GigERegisterBusEvents", [&] { return HAL_GigERegisterBusEvents(&registration, ignore, w); }},
        {"HAL_1394DeregisterBusEvents", [&] { return HAL_1394DeregisterBusEvents(w); }},
        {"HAL_UsbDeregisterBusEvents", [&] { return HAL_UsbDeregisterBusEvents(w); }},
        {"HAL_GigEDeregisterBusEvents", [&] { return HAL_GigEDeregisterBusEvents(w); }},
        {"HAL_GvcpDiscovery", [&] { return HAL_GvcpDiscovery(nullptr, &(small = 0)); }},
        {"HAL_GvcpForceIp", [] { return HAL_GvcpForceIp(0, 1, 0xC0A80002, 0xFFFFFF00, 0); }},
        {"HAL_GvcpForceIpAuto", [] { return HAL_GvcpForceIpAuto(); }},
        {"HAL_GvcpAutoForceIpToCamera", [] { return HAL_GvcpAutoForceIpToCamera(1); }},
        {"HAL_1394GetConfigInfo",
         [&] {
             return HAL_1394GetConfigInfo(camera, w, w + 1, w + 2, w + 3, w + 4, first.data(), second.data(),
                                          &firstSize, &secondSize);
         }},
        {"HAL_1394GetDeviceInfo", [&] { return HAL_1394GetDeviceInfo(device, w, w + 1, w + 2); }},
        {"HAL_1394GetNode", [&] { return HAL_1394GetNode(camera, &node, &bus); }},
        {"HAL_1394ReadRegister", [&] { return HAL_1394ReadRegister(camera, 0xF0000410, 0xFFFFFFFF, w); }},
        {"HAL_1394WriteRegister", [&] { return HAL_1394WriteRegister(camera, 0xF0F00614, 0xFFFFFFFF, 0, 0); }},
        {"HAL_1394ReadPhyRegister", [&] { return HAL_1394ReadPhyRegister(camera, 0, 0, 0, w); }},
        {"HAL_1394WritePhyRegister", [&] { return HAL_1394WritePhyRegister(camera, 0, 0, 0, 0); }},
        {"HAL_1394FireBusReset", [&] { return HAL_1394FireBusReset(camera); }},
        {"HAL_1394GetSelfIds", [&] { return HAL_1394GetSelfIds(camera, nullptr, &(count = 0), &key, w); }},
        {"HAL_1394GetNodeSerialNumbers", [&] { return HAL_1394GetNodeSerialNumbers(camera, w, 1); }},
        {"HAL_UsbGetConfigInfo",
         [&] {
             return HAL_UsbGetConfigInfo(usb, w, w + 1, w + 2, w + 3, w + 4, first.data(), second.data(), &firstSize,
                                         &secondSize);
         }},
        {"HAL_UsbGetSerialText", [&] { return HAL_UsbGetSerialText(usb, first.data(), &firstSize); }},
        {"HAL_UsbGetSpeed", [&] { return HAL_UsbGetSpeed(usb, w); }},
        {"HAL_UsbReadRegister", [&] { return HAL_UsbReadRegister(usb, 0xF0000410, 0xFFFFFFFF, w); }},
        {"HAL_UsbWriteRegister", [&] { return HAL_UsbWriteRegister(usb, 0xF0F00614, 0xFFFFFFFF, 0, 0); }},
        {"HAL_UsbFireBusReset", [&] { return HAL_UsbFireBusReset(usb); }},
        {"HAL_UsbGetLinkInfo", [&] { return HAL_UsbGetLinkInfo(usb, w); }},
        {"HAL_UsbGetPortStatus", [&] { return HAL_UsbGetPortStatus(usb, w); }},
        {"HAL_UsbGetSelfIds", [&] { return HAL_UsbGetSelfIds(usb, nullptr, &(count = 0), w, &key, w + 1); }},
        {"HAL_GigEGetConfigInfo",
         [&] {
             return HAL_GigEGetConfigInfo(net, w, w + 1, w + 2, w + 3, w + 4, first.data(), second.data(), &firstSize,
                                          &secondSize);
         }},
        {"HAL_GigEGetDiscoveryRecord", [&] { return HAL_GigEGetDiscoveryRecord(net, &record); }},
        {"HAL_GigEReadRegister", [&] { return HAL_GigEReadRegister(net, 0, w); }},
        {"HAL_GigEWriteRegister", [&] { return HAL_GigEWriteRegister(net, 0xA00, 0); }},
        {"HAL_GigEIsInMonitorMode", [&] { return HAL_GigEIsInMonitorMode(net, w); }},
        {"HAL_GigEGetLocalApplicationPort", [&] { return HAL_GigEGetLocalApplicationPort(net, w); }},
        {"HAL_GigEGetLocalApplicationIpAddress", [&] { return HAL_GigEGetLocalApplicationIpAddress(net, w); }},
        {"HAL_CleanupLibrary", [] { return HAL_CleanupLibrary(); }},
        {"HAL_InitLibrary", [] { return HAL_InitLibrary(); }},
    };
    ASSERT_EQ(calls.size(), functions.size());
    constexpr std::uint32_t OwnStatus = 4711;
    for (const auto& [function, call] : calls) {
        if (function == "HAL_CleanupLibrary" || function == "HAL_InitLibrary") {
            continue;
        }
        m_rig->AddFault({function, 1, OwnStatus, {}});
        EXPECT_EQ(call(), OwnStatus) << function;
        EXPECT_TRUE(m_rig->GetFaultsLeft().empty()) << function;
    }
    for (const char* function : {"HAL_CleanupLibrary", "HAL_InitLibrary"}) {
        m_rig->AddFault({function, 1, OwnStatus, {}});
        EXPECT_EQ(calls.at(function)(), OwnStatus) << function;
    }
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_CLOSED) << "the start that was refused has left nothing";
}

TEST_F(RigStory, LosesThatShareOfACamerasAnswersInMemoryToo) {
    Start();
    HardwareInterface* hw = nullptr;
    ASSERT_EQ(m_busMaster->GetHwInterfaceFromSerialNumber(200, &hw).GetType(), ERROR_OK);
    auto* const camera = dynamic_cast<GigEInterface*>(hw);
    ASSERT_NE(camera, nullptr);
    const auto countAnswered = [camera] {
        int answered = 0;
        for (int i = 0; i < 1000; ++i) {
            unsigned int value = 0;
            const std::uint32_t status = camera->ReadGVCPRegister(0x0A00, &value);
            EXPECT_THAT(status, testing::AnyOf(HAL_OK, HAL_TIMED_OUT));
            answered += status == HAL_OK ? 1 : 0;
        }
        return answered;
    };
    EXPECT_EQ(countAnswered(), 1000);
    Platform::Simulated::Faults half;
    half.lossPercent = 50;
    ASSERT_EQ(m_rig->SetFaults("net", half), std::nullopt);
    // One try gets through in 25 of 100 cases, one of three in 58.
    const int answered = countAnswered();
    EXPECT_GT(answered, 500);
    EXPECT_LT(answered, 660);
    ASSERT_EQ(m_rig->SetFaults("net", {}), std::nullopt);
    EXPECT_EQ(countAnswered(), 1000);
}

// 60 s of waiting in vain, if each camera's address were waited for.
TEST_F(RigStory, StartsWithAHundredCamerasThatLoseNearlyEverything) {
    std::string cameras;
    for (int i = 0; i < 100; ++i) {
        const std::string number = std::to_string(i + 100);
        cameras += (i == 0 ? "" : ",") + std::string(R"({"name": "g)") + number + R"(", "mac": "02:00:00:00:01:)" +
                   std::to_string(i / 10) + std::to_string(i % 10) + R"(", "address": "192.168.77.)" + number +
                   R"(/24", "serial": ")" + number + R"(", "answers": {"lossPercent": 99}})";
    }
    const std::string network = R"({"gige": [{"name": "e", "address": "192.168.77.1/24", "cameras": [)";
    Use(Platform::ParseRig(network + cameras + "]}]}", "lossy").rig);
    m_rig->SetFast(false);
    Start();
    EXPECT_EQ(Listed().size(), 100U);
    ZevoGuid guid = GuidOf(150);
    EXPECT_FALSE(guid == ZevoGuid()) << "with its address";
}

TEST_F(RigStory, FindsAGigECameraOnceItHasAnAddressOfThisSubnet) {
    Start();
    EXPECT_EQ(HAL_GvcpForceIpAuto(), HAL_OK);
    Settle();
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+201"));
    CameraInfo cameras[8];
    unsigned int count = 8;
    ASSERT_FALSE(m_busMaster->DiscoverGigECameras(cameras, &count) != ERROR_OK);
    const auto* moved =
        std::find_if(cameras, cameras + count, [](const auto& info) { return info.serialNumber == 201; });
    ASSERT_NE(moved, cameras + count);
    EXPECT_EQ(PackIPAddress(moved->ipAddress) >> 8, 0xC0A84Du);
    ZevoGuid guid;
    EXPECT_FALSE(m_busMaster->GetCameraFromIPAddress(moved->ipAddress, &guid) != ERROR_OK);
    EXPECT_TRUE(GuidOf(201) == guid);
}

TEST_F(RigStory, LeavesAGigECameraToTheHostThatHoldsIt) {
    Start();
    ASSERT_EQ(m_rig->Hold("net", {{0xC0A84DC8, 5000}, true}), std::nullopt);
    m_busMaster->RescanBus();
    ASSERT_TRUE(m_busMaster->WaitUntilQuiet(Patience));
    EXPECT_THAT(Listed(), Contains(200U)) << "it may still be watched";
    EXPECT_THAT(m_record.Take(), testing::IsEmpty());
}

TEST_P(RigStories, LosesEveryGigECameraWithTheLinkAndFindsThemAgain) {
    Start();
    ASSERT_EQ(m_rig->SetLink("e", false), std::nullopt);
    Settle();
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("-200"));
    ASSERT_EQ(m_rig->SetLink("e", true), std::nullopt);
    Settle();
    EXPECT_THAT(m_record.Take(), UnorderedElementsAre("+200"));
}

TEST_P(RigStories, FollowsBusesThatChangeTogether) {
    Start();
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
}

TEST_P(RigStories, HandlesThreeResetsDuringOneCycleInOneMore) {
    Start();
    Testing::TraceRecorder trace;
    const std::string inTheCycle = "Updating camera list. Current size: 4, new size: 4";
    const std::shared_ptr<Testing::Gate> cycle = trace.BlockAt(inTheCycle);
    std::thread rescan([this] { m_busMaster->RescanBus(); });
    EXPECT_TRUE(trace.WaitFor(inTheCycle));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(m_rig->ResetBus("fw0"), std::nullopt);
        EXPECT_TRUE(Platform::WaitUntilEventsAreDelivered(std::chrono::milliseconds(Patience)));
    }
    cycle->Open();
    rescan.join();
    Settle();
    EXPECT_EQ(trace.Count("Handling outstanding bus reset (3)"), 1U);
    EXPECT_EQ(trace.Count(inTheCycle), 2U);
    EXPECT_EQ(m_record.TakeResets(), 2U) << "the rescan's cycle, and one for the three";
    EXPECT_THAT(m_record.Take(), testing::IsEmpty());
}

TEST_F(RigStory, StartsWithFiveHundredAndTwelveCameras) {
    Platform::RigDescription description = Testing::RigOf512Cameras();
    ASSERT_TRUE(Rig::Validate(description).empty());

    Use(std::move(description));
    Start();
    unsigned int count = 0;
    EXPECT_FALSE(m_busMaster->GetNumOfCameras(&count) != ERROR_OK);
    EXPECT_EQ(count, 512U);
}

// A node that shows up on two cards is two devices.
TEST_F(RigStory, ResetsTheBusOfItsOwnCardOnly) {
    Platform::RigDescription description = Platform::ParseRig(TestRig, "story").rig;
    Platform::FireWireBusDescription second = description.fireWire.front();
    second.name = "fw1";
    for (auto& phy : second.phys) {
        phy.name += "'";
    }
    for (auto& cable : second.cables) {
        for (auto& end : cable.ends) {
            end.phy += "'";
        }
    }
    description.fireWire.push_back(second);
    ASSERT_TRUE(Rig::Validate(description).empty());
    Use(std::move(description));
    m_busMaster.reset();
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    std::array<void*, 256> entries{};
    std::uint64_t count = entries.size();
    ASSERT_EQ(HAL_1394GetCameras(entries.data(), &count), HAL_OK);
    ASSERT_EQ(count, 4U);
    const auto generations = [this] {
        return m_rig->WithFireWire([](std::vector<Platform::FireWireModel>& buses) {
            return std::make_pair(buses[0].Generation(), buses[1].Generation());
        });
    };
    const auto [first, other] = generations();
    EXPECT_EQ(HAL_1394FireBusReset(entries[3]), HAL_OK);
    EXPECT_EQ(generations(), std::make_pair(first, other + 1));
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
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
