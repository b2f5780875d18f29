// SPDX-License-Identifier: Apache-2.0
// The whole topology tree: cameras of a scripted HAL, and interface objects that answer what no HAL could make them
// answer. The test's thread; some tests hold the operation up on a second one.
#include <map>

#include "common/GigEInterface.h"
#include "common/IEEE1394Interface.h"
#include "common/UsbInterface.h"
#include "tests/busmaster/BusMasterFixture.h"
#include "tests/busmaster/ErrorChecks.h"
#include "tests/topology/TreeSupport.h"

namespace Nimbrel2::Testing {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Ports = std::vector<std::vector<unsigned int>>;

// The stream of PHYs 0, 1, 2, ... with these ports.
std::vector<SelfIdPacket_t> Bus(const Ports& phys) {
    std::vector<SelfIdPacket_t> stream;
    for (std::size_t id = 0; id < phys.size(); ++id) {
        AppendPhy(static_cast<unsigned int>(id), phys[id], stream);
    }
    return stream;
}

// A tree as text, each guid replaced by "serial N".
class TopologyFixture : public BusMasterFixture {
protected:
    // PHYs 0 and 1 are attached to PHY 2, the card.
    ScriptedHal::DevicePointer AddFireWire(std::uint32_t serialNumber, std::uint64_t busKey = 7) {
        const auto camera = hal.AddFireWireCamera(serialNumber);
        camera->busKey = busKey;
        camera->selfIds = Bus({{2}, {2}, {3, 3}});
        camera->nodeSerialNumbers = {101, 102, 0};
        return camera;
    }

    // A hub on root port 1 with devices 11 and 12.
    ScriptedHal::DevicePointer AddUsb3(std::uint32_t serialNumber, std::uint32_t deviceId, std::uint64_t hostKey = 9) {
        const auto camera = hal.AddUsbCamera(serialNumber, 5000);
        camera->hostKey = hostKey;
        camera->deviceId = deviceId;
        camera->tree = {UsbSelfId{10, 5000, 1, 0x0, 63}, UsbSelfId{11, 5000, 1, 0x1, 10},
                        UsbSelfId{12, 5000, 1, 0x2, 10}};
        return camera;
    }

    std::string Topology(Input input = Input::WellFormed) {
        TopologyNode tree;
        EXPECT_OK(busMaster->GetTopology(&tree));
        EXPECT_THAT(Violations(tree, input), IsEmpty()) << Dump(tree);
        ExpectLocksFree(*busMaster);
        return WithSerialNumbers(Dump(tree));
    }

    std::string WithSerialNumbers(std::string text) {
        for (const BusMasterHandle* camera : Inside().m_cameraList) {
            const ZevoGuid& guid = camera->guid;
            char words[48];
            std::snprintf(words, sizeof words, "%x-%x-%x-%x", guid.value[0], guid.value[1], guid.value[2],
                          guid.value[3]);
            for (std::size_t at; (at = text.find(words)) != std::string::npos;) {
                text.replace(at, std::string(words).size(), "serial " + std::to_string(camera->serialNumber));
            }
        }
        return text;
    }

    // Calls of GetTopology only, as "function device".
    std::vector<std::string> Calls() {
        std::vector<std::string> calls;
        for (const HalCall& call : hal.Calls()) {
            if (call.function.find("SelfIds") != std::string::npos ||
                call.function.find("NodeSerial") != std::string::npos) {
                calls.push_back(call.function.substr(4) + ' ' +
                                std::to_string(hal.DeviceOf(call.Entry())->serialNumber));
            }
        }
        return calls;
    }
};

// ---- Refusals ------------------------------------------------------------------------------------------------------

TEST_F(TopologyFixture, RefusesANullNodeBeforeItLooksAtStartUp) {
    Construct();
    EXPECT_ERROR(busMaster->GetTopology(nullptr), ERROR_INVALID_PARAMETER, "Invalid topology node address.");
    ExpectLocksFree(*busMaster);
}

TEST_F(TopologyFixture, RefusesANullNodeAfterStartUp) {
    Start();
    EXPECT_ERROR(busMaster->GetTopology(nullptr), ERROR_INVALID_PARAMETER, "Invalid topology node address.");
    ExpectLocksFree(*busMaster);
}

TEST_F(TopologyFixture, RefusesBeforeStartUpAndLeavesTheNodeAlone) {
    Construct();
    TopologyNode node(ZevoGuid{{1, 2, 3, 4}}, 5, TopologyNode::NODE_CAMERA, INTERFACE_USB_2);
    node.AddPortType(TopologyNode::PORT_TO_PARENT);
    EXPECT_ERROR(busMaster->GetTopology(&node), ERROR_NOT_INITIALIZED, "Object not initialized.");
    EXPECT_EQ(Dump(node), "camera usb2 5 [P] 1-2-3-4\n");
    ExpectLocksFree(*busMaster);
}

// ---- Flat buses ----------------------------------------------------------------------------------------------------

TEST_F(TopologyFixture, IsTheComputerAloneWithoutCameras) {
    Start();
    EXPECT_EQ(Topology(), "computer none 0 []\n");
    EXPECT_THAT(traces.Count("Invalid topology node address."), 0u);
}

TEST_F(TopologyFixture, LeavesDevicesThatAreNoCamerasOut) {
    hal.AddFireWireDevice(1, 2);
    Start();
    EXPECT_EQ(DeviceCount(), 1u);
    EXPECT_EQ(Topology(), "computer none 0 []\n");
}

TEST_F(TopologyFixture, PutsAGigECameraOnTheGigEBus) {
    hal.AddGigECamera(300, 1);
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus gige 0 [PC]\n"
              "    camera gige 0 [P] serial 300\n");
}

TEST_F(TopologyFixture, NumbersFlatCamerasByTheirPlaceOnTheirBus) {
    hal.AddGigECamera(301, 1);
    hal.AddGigECamera(302, 2);
    hal.AddUsbCamera(201, 480);
    hal.AddUsbCamera(202, 480);
    hal.AddUsbCamera(203, 480);
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [CC]\n"
              "  bus usb2 0 [PCCC]\n"
              "    camera usb2 0 [P] serial 201\n"
              "    camera usb2 1 [P] serial 202\n"
              "    camera usb2 2 [P] serial 203\n"
              "  bus gige 0 [PCC]\n"
              "    camera gige 0 [P] serial 301\n"
              "    camera gige 1 [P] serial 302\n");
    EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(TopologyFixture, ReplacesWhatTheReceivingNodeHeld) {
    hal.AddGigECamera(300, 1);
    Start();
    TopologyNode node(ZevoGuid{{1, 2, 3, 4}}, 5, TopologyNode::NODE_CAMERA, INTERFACE_USB_2);
    node.AddPortType(TopologyNode::PORT_TO_PARENT);
    node.AddChild(node);
    EXPECT_OK(busMaster->GetTopology(&node));
    EXPECT_EQ(WithSerialNumbers(Dump(node)),
              "computer none 0 [C]\n  bus gige 0 [PC]\n    camera gige 0 [P] serial 300\n");
}

class CallersNode : public TopologyNode {
public:
    CallersNode& operator=(const TopologyNode& other) override {
        ++assignments;
        TopologyNode::operator=(other);
        return *this;
    }
    int assignments = 0;
};

TEST_F(TopologyFixture, ReachesANodeOfTheCallersOwnClassThroughItsAssignment) {
    hal.AddGigECamera(300, 1);
    Start();
    CallersNode node;
    EXPECT_OK(busMaster->GetTopology(&node));
    EXPECT_EQ(node.assignments, 1);
    EXPECT_EQ(WithSerialNumbers(Dump(node)),
              "computer none 0 [C]\n  bus gige 0 [PC]\n    camera gige 0 [P] serial 300\n");
}

// ---- IEEE 1394 -----------------------------------------------------------------------------------------------------

TEST_F(TopologyFixture, PutsAFireWireCameraAtTheNodeOfItsSerialNumber) {
    AddFireWire(102);
    Start();
    hal.ClearCalls();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus 1394 0 [PC]\n"
              "    device 1394 2 [PCC]\n"
              "      device 1394 0 [P]\n"
              "      device 1394 1 [P] serial 102\n");
    EXPECT_THAT(Calls(), ElementsAre("1394GetSelfIds 102", "1394GetNodeSerialNumbers 102", "1394GetSelfIds 102"));
}

TEST_F(TopologyFixture, ReadsTheBusOfTwoCamerasOnce) {
    AddFireWire(102);
    AddFireWire(101);
    Start();
    hal.ClearCalls();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus 1394 0 [PC]\n"
              "    device 1394 2 [PCC]\n"
              "      device 1394 0 [P] serial 101\n"
              "      device 1394 1 [P] serial 102\n");
    EXPECT_THAT(Calls(), ElementsAre("1394GetSelfIds 102", "1394GetNodeSerialNumbers 102", "1394GetSelfIds 102",
                                     "1394GetSelfIds 101"));
}

TEST_F(TopologyFixture, ShowsTwoFireWireBusesInTheOrderOfTheirFirstCameras) {
    AddFireWire(101, 8);
    AddFireWire(102, 7);
    AddFireWire(102, 8);
    Start();
    const std::string tree = Topology();
    EXPECT_EQ(tree,
              "computer none 0 [C]\n"
              "  bus 1394 0 [PCC]\n"
              "    device 1394 2 [PCC]\n"
              "      device 1394 0 [P] serial 101\n"
              "      device 1394 1 [P] serial 102\n"
              "    device 1394 2 [PCC]\n"
              "      device 1394 0 [P]\n"
              "      device 1394 1 [P] serial 102\n");
}

TEST_F(TopologyFixture, TakesTheLastNodeOfASerialNumberThatStandsTwice) {
    AddFireWire(102)->nodeSerialNumbers = {102, 102, 0};
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P]\n"
              "      device 1394 1 [P] serial 102\n");
}

TEST_F(TopologyFixture, PutsACameraWhoseSerialNumberStandsNowhereAtNode0) {
    AddFireWire(555);
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P] serial 555\n"
              "      device 1394 1 [P]\n");
}

TEST_F(TopologyFixture, IgnoresWhetherTheSerialNumbersCouldBeRead) {
    AddFireWire(102)->statuses["HAL_1394GetNodeSerialNumbers"] = HAL_TIMED_OUT;
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P] serial 102\n"
              "      device 1394 1 [P]\n");
}

TEST_F(TopologyFixture, AsksForAsManySerialNumbersAsThereArePacketsAndSetsThemToZero) {
    const auto camera = AddFireWire(102);
    camera->selfIds = Bus({{2, 1, 1, 1}, {3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}});  // two packets and three
    hal.Replace(&HalHooks::HAL_1394GetNodeSerialNumbers,
                [](void*, std::uint32_t* serialNumbers, std::uint64_t count) -> std::uint32_t {
                    EXPECT_EQ(count, 5u);
                    EXPECT_EQ(std::count(serialNumbers, serialNumbers + count, 0u), 5);
                    return HAL_OK;
                });
    Start();
    Topology(Input::Anything);
    EXPECT_EQ(hal.Count("HAL_1394GetNodeSerialNumbers"), 1u);
}

TEST_F(TopologyFixture, LeavesAFireWireCameraOutWhoseSizeQueryFails) {
    AddFireWire(101)->statuses["HAL_1394GetSelfIds"] = HAL_GONE;
    AddFireWire(102);
    Start();
    hal.ClearCalls();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P]\n"
              "      device 1394 1 [P] serial 102\n");
    EXPECT_THAT(Calls(), ElementsAre("1394GetSelfIds 101", "1394GetSelfIds 102", "1394GetNodeSerialNumbers 102",
                                     "1394GetSelfIds 102"));
}

TEST_F(TopologyFixture, TriesABusAgainThroughTheNextCameraWhenItChangedUnderTheFirst) {
    const auto first = AddFireWire(101);
    AddFireWire(102);
    Start();
    // The bus is reset between the first camera's size query and its fill.
    int readings = 0;
    hal.Replace(&HalHooks::HAL_1394GetNodeSerialNumbers,
                [&](void* entry, std::uint32_t* serialNumbers, std::uint64_t count) -> std::uint32_t {
                    if (++readings == 1) {
                        hal.Change([&] { ++first->generation; });
                    }
                    return hal.Defaults().HAL_1394GetNodeSerialNumbers(entry, serialNumbers, count);
                });
    hal.ClearCalls();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P]\n"
              "      device 1394 1 [P] serial 102\n");
    EXPECT_THAT(Calls(), ElementsAre("1394GetSelfIds 101", "1394GetNodeSerialNumbers 101", "1394GetSelfIds 101",
                                     "1394GetSelfIds 102", "1394GetNodeSerialNumbers 102", "1394GetSelfIds 102"));
}

TEST_F(TopologyFixture, ShowsAnEmptyNodeForAFireWireBusWithoutPackets) {
    AddFireWire(101)->selfIds.clear();
    Start();
    EXPECT_EQ(Topology(Input::Anything), "computer none 0 [C]\n  bus 1394 0 [PC]\n    computer none 0 [] serial 101\n");
}

TEST_F(TopologyFixture, SurvivesAHalThatClaimsMorePacketsThanThereWasRoomFor) {
    AddFireWire(101);
    hal.Replace(&HalHooks::HAL_1394GetSelfIds,
                [](void*, SelfIdPacket_t*, std::uint64_t* count, std::uint64_t* busKey,
                   std::uint32_t* generation) -> std::uint32_t {
                    *count = ~std::uint64_t{0};
                    *busKey = 1;
                    *generation = 1;
                    return HAL_OK;
                });
    Start();
    EXPECT_EQ(Topology(), "computer none 0 []\n");
}

// ---- USB 3 ---------------------------------------------------------------------------------------------------------

TEST_F(TopologyFixture, PutsAUsb3CameraInTheTreeOfItsHost) {
    AddUsb3(201, 12);
    Start();
    hal.ClearCalls();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus usb3 0 [PC]\n"
              "    device usb3 63 [PC]\n"
              "      device usb3 10 [CCP]\n"
              "        device usb3 11 [P]\n"
              "        device usb3 12 [P] serial 201\n");
    EXPECT_THAT(Calls(), ElementsAre("UsbGetSelfIds 201", "UsbGetSelfIds 201"));
}

TEST_F(TopologyFixture, BuildsTheHostOfTwoCamerasOnce) {
    AddUsb3(201, 12);
    AddUsb3(202, 11);
    Start();
    hal.ClearCalls();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus usb3 0 [PC]\n"
              "    device usb3 63 [PC]\n"
              "      device usb3 10 [CCP]\n"
              "        device usb3 11 [P] serial 202\n"
              "        device usb3 12 [P] serial 201\n");
    EXPECT_THAT(Calls(), ElementsAre("UsbGetSelfIds 201", "UsbGetSelfIds 201", "UsbGetSelfIds 202"));
}

TEST_F(TopologyFixture, ShowsAUsb3CameraWithoutATreeFlat) {
    AddUsb3(201, 12)->statuses["HAL_UsbGetSelfIds"] = 20;
    Start();
    hal.ClearCalls();
    EXPECT_EQ(Topology(), "computer none 0 [C]\n  bus usb3 0 [PC]\n    camera usb3 0 [P] serial 201\n");
    EXPECT_THAT(Calls(), ElementsAre("UsbGetSelfIds 201"));
}

TEST_F(TopologyFixture, NumbersAFlatUsb3CameraByItsPlaceAmongHosts) {
    AddUsb3(201, 12);
    AddUsb3(202, 12)->statuses["HAL_UsbGetSelfIds"] = 20;
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus usb3 0 [PCC]\n"
              "    device usb3 63 [PC]\n"
              "      device usb3 10 [CCP]\n"
              "        device usb3 11 [P]\n"
              "        device usb3 12 [P] serial 201\n"
              "    camera usb3 1 [P] serial 202\n");
}

TEST_F(TopologyFixture, FindsTheHostOfALaterCameraBehindFlatAndFailedOnes) {
    AddUsb3(201, 12, 5)->statuses["HAL_UsbGetSelfIds"] = 20;
    AddUsb3(202, 12, 6)->statuses["HAL_UsbGetSelfIds"] = HAL_GONE;
    AddUsb3(203, 12, 7);
    AddUsb3(204, 11, 8);
    AddUsb3(205, 12, 8);
    AddUsb3(206, 11, 7);
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus usb3 0 [PCCC]\n"
              "    camera usb3 0 [P] serial 201\n"
              "    device usb3 63 [PC]\n"
              "      device usb3 10 [CCP]\n"
              "        device usb3 11 [P] serial 206\n"
              "        device usb3 12 [P] serial 203\n"
              "    device usb3 63 [PC]\n"
              "      device usb3 10 [CCP]\n"
              "        device usb3 11 [P] serial 204\n"
              "        device usb3 12 [P] serial 205\n");
}

// The fill of a camera fails once when its controller has changed since the query.
TEST_F(TopologyFixture, TriesAHostAgainThroughTheNextCameraWhenItChangedUnderTheFirst) {
    const auto first = AddUsb3(201, 11);
    AddUsb3(202, 12);
    Start();
    int calls = 0;
    hal.Replace(&HalHooks::HAL_UsbGetSelfIds,
                [&](void* entry, UsbSelfId* records, std::uint64_t* count, std::uint32_t* deviceId,
                    std::uint64_t* hostKey, std::uint32_t* generation) -> std::uint32_t {
                    if (++calls == 2) {
                        hal.Change([&] { ++first->generation; });
                    }
                    return hal.Defaults().HAL_UsbGetSelfIds(entry, records, count, deviceId, hostKey, generation);
                });
    hal.ClearCalls();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus usb3 0 [PC]\n"
              "    device usb3 63 [PC]\n"
              "      device usb3 10 [CCP]\n"
              "        device usb3 11 [P]\n"
              "        device usb3 12 [P] serial 202\n");
    EXPECT_THAT(Calls(),
                ElementsAre("UsbGetSelfIds 201", "UsbGetSelfIds 201", "UsbGetSelfIds 202", "UsbGetSelfIds 202"));
}

TEST_F(TopologyFixture, ShowsAHostWithoutRecordsAlone) {
    AddUsb3(201, 12)->tree.clear();
    Start();
    hal.ClearCalls();
    EXPECT_EQ(Topology(), "computer none 0 [C]\n  bus usb3 0 [PC]\n    device usb3 63 [P]\n");
    EXPECT_THAT(Calls(), ElementsAre("UsbGetSelfIds 201", "UsbGetSelfIds 201"));
}

TEST_F(TopologyFixture, ShowsAHostWhoseRecordsLackTheCamera) {
    AddUsb3(201, 77);
    Start();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus usb3 0 [PC]\n    device usb3 63 [PC]\n      device usb3 10 [CCP]\n"
              "        device usb3 11 [P]\n        device usb3 12 [P]\n");
}

TEST_F(TopologyFixture, GivesTheGuidOfACameraWithTheHostsIdToTheHost) {
    AddUsb3(201, 63);
    Start();
    EXPECT_EQ(Topology(Input::Anything),
              "computer none 0 [C]\n  bus usb3 0 [PC]\n    device usb3 63 [PC] serial 201\n"
              "      device usb3 10 [CCP]\n        device usb3 11 [P]\n        device usb3 12 [P]\n");
}

TEST_F(TopologyFixture, SurvivesAHalThatClaimsMoreRecordsThanThereWasRoomFor) {
    AddUsb3(201, 12);
    hal.Replace(&HalHooks::HAL_UsbGetSelfIds,
                [](void*, UsbSelfId*, std::uint64_t* count, std::uint32_t* deviceId, std::uint64_t* hostKey,
                   std::uint32_t* generation) -> std::uint32_t {
                    *count = std::uint64_t{1} << 60;
                    *deviceId = 12;
                    *hostKey = 1;
                    *generation = 1;
                    return HAL_OK;
                });
    Start();
    EXPECT_EQ(Topology(), "computer none 0 []\n");
}

// ---- Together ------------------------------------------------------------------------------------------------------

TEST_F(TopologyFixture, OrdersBusesTheSameWhateverTheOrderOfTheCameras) {
    hal.AddGigECamera(301, 1);
    AddUsb3(203, 12);
    hal.AddUsbCamera(202, 480);
    AddFireWire(101);
    Start();
    const std::string expected =
        "computer none 0 [CCCC]\n"
        "  bus 1394 0 [PC]\n"
        "    device 1394 2 [PCC]\n"
        "      device 1394 0 [P] serial 101\n"
        "      device 1394 1 [P]\n"
        "  bus usb2 0 [PC]\n"
        "    camera usb2 0 [P] serial 202\n"
        "  bus usb3 0 [PC]\n"
        "    device usb3 63 [PC]\n"
        "      device usb3 10 [CCP]\n"
        "        device usb3 11 [P]\n"
        "        device usb3 12 [P] serial 203\n"
        "  bus gige 0 [PC]\n"
        "    camera gige 0 [P] serial 301\n";
    EXPECT_EQ(Topology(), expected);
    {
        const Lock lock(Inside().m_busMasterMutex);
        std::reverse(Inside().m_cameraList.begin(), Inside().m_cameraList.end());
    }
    EXPECT_EQ(Topology(), expected);
}

TEST_F(TopologyFixture, IsBuiltAfreshByEachCall) {
    AddFireWire(101);
    const auto second = AddFireWire(102);
    Start();
    const std::string both = Topology();
    EXPECT_EQ(Topology(), both);
    hal.Detach(second);
    Cycle();
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P] serial 101\n"
              "      device 1394 1 [P]\n");
}

TEST_F(TopologyFixture, HoldsTheMainLockWhileItReadsABus) {
    AddFireWire(101);
    Start();
    const auto gate = hal.Block("HAL_1394GetNodeSerialNumbers");
    std::thread caller([this] {
        TopologyNode tree;
        EXPECT_OK(busMaster->GetTopology(&tree));
    });
    EXPECT_TRUE(gate->WaitUntilReached());
    {
        Lock lock(Inside().m_busMasterMutex, boost::try_to_lock);
        EXPECT_FALSE(lock.owns_lock());
    }
    gate->Open();
    caller.join();
    ExpectLocksFree(*busMaster);
}

TEST_F(TopologyFixture, LetsAFailedAllocationOutWithTheLockReleasedAndTheNodeUntouched) {
    AddFireWire(101);
    AddFireWire(102);
    AddUsb3(201, 12);
    AddUsb3(202, 11);
    hal.AddGigECamera(301, 1);
    Start();
    bool happened = true;
    std::uint64_t nth = 1;
    for (; happened; ++nth) {
        TopologyNode node(ZevoGuid{}, 5, TopologyNode::NODE_CAMERA, INTERFACE_USB_2);
        bool threw = false;
        {
            const AllocationFailure failure(nth);
            try {
                EXPECT_OK(busMaster->GetTopology(&node));
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            happened = failure.Happened();
        }
        EXPECT_EQ(threw, happened);
        if (threw) {
            EXPECT_EQ(Dump(node), "camera usb2 5 []\n");
        }
        ExpectLocksFree(*busMaster);
        ASSERT_LT(nth, 1000u);
    }
    EXPECT_GT(nth, 20u);
}

// ---- Interfaces that a HAL cannot make -----------------------------------------------------------------------------

// Interface objects put straight into the list of an object that was never started.
class TopologyOfInterfaces : public ::testing::Test {
protected:
    void SetUp() override { Inside().SetInitialized(true); }

    void TearDown() override {
        const Lock lock(Inside().m_busMasterMutex);
        for (BusMasterHandle* camera : Inside().m_cameraList) {
            delete camera;
        }
        Inside().m_cameraList.clear();
        Inside().SetInitialized(false);
    }

    Members& Inside() { return BusMasterTestAccess::Get(busMaster); }

    void Add(std::uint32_t serialNumber, HardwareInterface* hwInterface) {
        auto* const camera = new BusMasterHandle;
        camera->serialNumber = serialNumber;
        camera->guid = ZevoGuid{{serialNumber, 0, 0, 0}};
        camera->hwInterface.reset(hwInterface);
        Inside().m_cameraList.push_back(camera);
    }

    std::string Topology() {
        TopologyNode tree;
        EXPECT_OK(busMaster.GetTopology(&tree));
        EXPECT_THAT(Violations(tree, Input::Anything), IsEmpty()) << Dump(tree);
        ExpectLocksFree(busMaster);
        return Dump(tree);
    }

    ScriptedHal hal;
    BusMaster busMaster;
};

class GigEInterfaceOfType : public GigEInterface {
public:
    explicit GigEInterfaceOfType(InterfaceType type) : GigEInterface(nullptr), m_type(type) {}
    InterfaceType GetInterfaceType() override { return m_type; }

private:
    const InterfaceType m_type;
};

TEST_F(TopologyOfInterfaces, PutsAGigEInterfaceThatSaysIEEE1394OnTheGigEBusWithItsOwnType) {
    Add(1, new GigEInterfaceOfType(INTERFACE_GIGE));
    Add(2, new GigEInterfaceOfType(INTERFACE_IEEE1394));
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n"
              "  bus gige 0 [PCC]\n"
              "    camera gige 0 [P] 1-0-0-0\n"
              "    camera 1394 1 [P] 2-0-0-0\n");
}

TEST_F(TopologyOfInterfaces, LeavesACameraOfNoKnownBusOut) {
    Add(1, new GigEInterfaceOfType(INTERFACE_NONE));
    Add(2, new GigEInterfaceOfType(static_cast<InterfaceType>(5)));
    Add(3, new GigEInterfaceOfType(static_cast<InterfaceType>(0xFFFFFFFF)));
    EXPECT_EQ(Topology(), "computer none 0 []\n");
}

TEST_F(TopologyOfInterfaces, StopsTheProgramAtACameraWithoutAnInterface) {
    // In a program of its own: in a forked process this one's bus master answers nothing.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Add(1, nullptr);
            TopologyNode tree;
            busMaster.GetTopology(&tree);
        },
        "");
}

// A FireWire camera that answers as the test wants it to.
class ScriptedFireWire : public IEEE1394Interface {
public:
    ScriptedFireWire() : IEEE1394Interface(nullptr) {}

    int GetSelfIds(unsigned int*, std::uint64_t* busKey, std::uint64_t* count, SelfIdPacket_t* packets) override {
        if (packets == nullptr) {
            *busKey = key;
            *count = queryCount;
            return queryStatus;
        }
        ++fills;
        EXPECT_EQ(*count, queryCount);
        std::copy(stream.begin(), stream.end(), packets);
        *count = fillCount;
        *busKey = keyOfFill;
        return fillStatus;
    }
    std::uint32_t GetNodeSerialNumbers(std::vector<unsigned int>* serialNumbers) override {
        *serialNumbers = serials;
        return 0;
    }

    std::uint64_t key = 7;
    std::uint64_t keyOfFill = 7;
    std::vector<SelfIdPacket_t> stream = Bus({{2}, {2}, {3, 3}});
    std::uint64_t queryCount = 3;
    std::uint64_t fillCount = 3;
    int queryStatus = 0;
    int fillStatus = 0;
    int fills = 0;
    std::vector<unsigned int> serials{1, 2, 0};
};

const char* const TreeOfThree =
    "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P] 1-0-0-0\n"
    "      device 1394 1 [P]\n";

TEST_F(TopologyOfInterfaces, LeavesABusOutThatClaimsMorePacketsThanABusCanHave) {
    for (const std::uint64_t count : {std::uint64_t{253}, std::uint64_t{1} << 40, ~std::uint64_t{0}}) {
        auto* const camera = new ScriptedFireWire;
        camera->queryCount = count;
        Add(1, camera);
        EXPECT_EQ(Topology(), "computer none 0 []\n") << count;
        EXPECT_EQ(camera->fills, 0);
    }
}

TEST_F(TopologyOfInterfaces, ParsesNoMorePacketsThanWereFilled) {
    auto* const camera = new ScriptedFireWire;
    camera->fillCount = 1;
    Add(1, camera);
    EXPECT_EQ(Topology(), "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 0 [PP] 1-0-0-0\n");
}

TEST_F(TopologyOfInterfaces, ParsesNoMorePacketsThanThereIsRoomFor) {
    auto* const camera = new ScriptedFireWire;
    camera->fillCount = ~std::uint64_t{0};
    Add(1, camera);
    EXPECT_EQ(Topology(), TreeOfThree);
}

TEST_F(TopologyOfInterfaces, GoesByTheKeyOfTheQuery) {
    auto* const first = new ScriptedFireWire;
    first->keyOfFill = 99;
    Add(1, first);
    auto* const second = new ScriptedFireWire;
    Add(2, second);
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P] 1-0-0-0\n"
              "      device 1394 1 [P] 2-0-0-0\n");
    EXPECT_EQ(second->fills, 0);
}

TEST_F(TopologyOfInterfaces, TakesAnyNumberOfSerialNumbers) {
    auto* const camera = new ScriptedFireWire;
    camera->serials.assign(1000, 0);
    camera->serials[999] = 1;
    Add(1, camera);
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC]\n      device 1394 0 [P]\n"
              "      device 1394 1 [P]\n");
    camera->serials.clear();
    EXPECT_EQ(Topology(), TreeOfThree);
}

TEST_F(TopologyOfInterfaces, KeepsTheSerialNumbersThatTheFirstCameraOfABusRead) {
    auto* const first = new ScriptedFireWire;
    first->fillStatus = 14;
    first->serials = {9, 1, 3};
    Add(1, first);
    auto* const second = new ScriptedFireWire;
    second->serials = {2, 0, 0};
    Add(2, second);
    Add(3, new ScriptedFireWire);
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus 1394 0 [PC]\n    device 1394 2 [PCC] 3-0-0-0\n"
              "      device 1394 0 [P] 2-0-0-0\n      device 1394 1 [P]\n");
}

// A USB 3 camera that answers as the test wants it to.
class ScriptedUsb : public UsbInterface {
public:
    ScriptedUsb() : UsbInterface(nullptr) {}

    InterfaceType GetInterfaceType() override { return INTERFACE_USB_3; }
    int GetUsbSelfIds(unsigned int* deviceId, std::uint64_t* hostKey, std::uint64_t* count,
                      UsbSelfId* records) override {
        if (records == nullptr) {
            *deviceId = 4;
            *hostKey = 9;
            *count = queryCount;
            return queryStatus;
        }
        ++fills;
        EXPECT_EQ(*count, queryCount);
        std::copy(tree.begin(), tree.end(), records);
        *count = fillCount;
        *deviceId = 99;
        *hostKey = 99;
        return fillStatus;
    }

    std::vector<UsbSelfId> tree{UsbSelfId{3, 5000, 1, 0, 63}, UsbSelfId{4, 5000, 1, 1, 3}};
    std::uint64_t queryCount = 2;
    std::uint64_t fillCount = 2;
    int queryStatus = 0;
    int fillStatus = 0;
    int fills = 0;
};

TEST_F(TopologyOfInterfaces, LeavesAHostOutThatClaimsMoreRecordsThanAHostCanHave) {
    for (const std::uint64_t count : {std::uint64_t{1025}, std::uint64_t{1} << 40, ~std::uint64_t{0}}) {
        auto* const camera = new ScriptedUsb;
        camera->queryCount = count;
        Add(1, camera);
        EXPECT_EQ(Topology(), "computer none 0 []\n") << count;
        EXPECT_EQ(camera->fills, 0);
    }
}

TEST_F(TopologyOfInterfaces, UsesNoMoreRecordsThanWereFilledAndTheIdOfTheQuery) {
    auto* const camera = new ScriptedUsb;
    Add(1, camera);
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus usb3 0 [PC]\n    device usb3 63 [PC]\n      device usb3 3 [CP]\n"
              "        device usb3 4 [P] 1-0-0-0\n");
    camera->fillCount = 1;
    EXPECT_EQ(Topology(), "computer none 0 [C]\n  bus usb3 0 [PC]\n    device usb3 63 [PC]\n      device usb3 3 [P]\n");
    camera->fillCount = ~std::uint64_t{0};
    EXPECT_EQ(Topology(),
              "computer none 0 [C]\n  bus usb3 0 [PC]\n    device usb3 63 [PC]\n      device usb3 3 [CP]\n"
              "        device usb3 4 [P] 1-0-0-0\n");
}

TEST_F(TopologyOfInterfaces, LeavesAUsbCameraOutOnAnyStatusBut20) {
    auto* const camera = new ScriptedUsb;
    Add(1, camera);
    for (const int status : {1, 12, 19, 21, -1}) {
        camera->queryStatus = status;
        EXPECT_EQ(Topology(), "computer none 0 []\n") << status;
    }
    EXPECT_EQ(camera->fills, 0);
    camera->queryStatus = 0;
    for (const int status : {1, 14, 20, -1}) {  // 20 says "no tree" to the query only
        camera->fillStatus = status;
        EXPECT_EQ(Topology(), "computer none 0 []\n") << status;
    }
}

// Routes that repeat each other, as no bus can have them, come to a bounded tree in bounded time.
TEST_F(TopologyOfInterfaces, BoundsTheTreeOfHostileRecords) {
    auto* const camera = new ScriptedUsb;
    camera->tree.assign(1024, UsbSelfId{5, 0, 1, 0x1111, 0});
    camera->tree[0].routeString = 0;
    for (std::size_t i = 1; i < 768; ++i) {
        camera->tree[i].routeString = i % 3 == 0 ? 0x1 : i % 3 == 1 ? 0x11 : 0x111;
    }
    camera->queryCount = camera->fillCount = camera->tree.size();
    Add(1, camera);
    TopologyNode tree;
    EXPECT_OK(busMaster.GetTopology(&tree));
    EXPECT_THAT(Violations(tree, Input::Anything), IsEmpty());
    EXPECT_EQ(tree.GetNumChildren(), 1u);
}

// ---- The operations of the object that stand for the plain functions -----------------------------------------------

TEST(TopologyOperations, ParseSelfIdPacketsGivesACallersNodeTheTreeThroughItsAssignment) {
    CallersNode node;
    const auto stream = Bus({{2}, {3}});
    EXPECT_OK(BusMasterTestAccess::ParseSelfIdPackets(&node, stream.size(), stream.data()));
    EXPECT_EQ(node.assignments, 1);
    EXPECT_EQ(Dump(node), "device 1394 1 [PC]\n  device 1394 0 [P]\n");
}

TEST(TopologyOperations, ParseSelfIdPacketsGivesAnEmptyNodeForNoPackets) {
    TopologyNode node(ZevoGuid{{1, 1, 1, 1}}, 5, TopologyNode::NODE_DEVICE, INTERFACE_IEEE1394);
    EXPECT_OK(BusMasterTestAccess::ParseSelfIdPackets(&node, 0, nullptr));
    EXPECT_EQ(Dump(node), Dump(TopologyNode()));
}

TEST(TopologyOperations, ForwardToThePlainFunctions) {
    std::vector<TopologyNode::PortType> ports;
    std::uint32_t children = 0;
    const SelfIdPacket_t zero{{0x80, 0x7F, 0x88, 0b11'10'01'0'1}};
    const SelfIdPacket_t more{{0x80, 0b1'000'00'11, 0b01'00'00'00, 0b00'00'11'0'0}};
    BusMasterTestAccess::ParseSelfIdPacketZero(&zero, ports, children);
    BusMasterTestAccess::ParseSelfIdPacketMore(&more, ports, children);
    EXPECT_EQ(children, 3u);
    TopologyNode node(ZevoGuid{}, 1, TopologyNode::NODE_DEVICE, INTERFACE_USB_3);
    BusMasterTestAccess::AddPortsAsChildren(node, ports);
    EXPECT_EQ(Dump(node), "device usb3 1 [CP-C-C]\n");

    std::vector<TopologyNode> nodes{TopologyNode(ZevoGuid{}, 2, TopologyNode::NODE_DEVICE, INTERFACE_USB_3)};
    BusMasterTestAccess::AddNodesAsChildren(node, nodes);
    std::array<std::vector<UsbSelfId>, 5> tiers;
    tiers[1] = {UsbSelfId{3, 0, 1, 1, 0}};
    BusMasterTestAccess::BuildUsbTopology(&node, 0, &tiers, 1);
    EXPECT_EQ(Dump(node), "device usb3 1 [CP-C-CC]\n  device usb3 2 []\n  device usb3 3 [P]\n");
}

}  // namespace
}  // namespace Nimbrel2::Testing
