// SPDX-License-Identifier: Apache-2.0
// What the driver lists, and what it reports when nodes come and go.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/firewire/NodeScan.h"
#include "tests/platform/firewire/FireWireFixture.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char TestLeft[] = "0011880000031001 Acme/Zoom 1394 node 0 (0xffc0) bus 0 (0) version 0x000102";
constexpr char TestRight[] = "0011880000031002 Acme/Zoom 1394 node 1 (0xffc1) bus 0 (0) version 0x000102";

const PresentDevice* FindDevice(const BusState& state, std::uint64_t eui64) {
    for (const PresentDevice& device : state.devices) {
        if (device.identity.ends_with("/" + std::to_string(eui64))) {
            return &device;
        }
    }
    return nullptr;
}

TEST_F(FireWireDriver, ListsCamerasAndOtherNodesWithWhatTheirRomsTell) {
    AddStandardBus();
    Start();
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
    EXPECT_THAT(DescribeAll(ListDevices()),
                ElementsAre("003094000000d15c Disco/ node 3 (0xffc3) bus 0 (0) version 0x010483"));
}

TEST_F(FireWireDriver, IsSilentOnAComputerWithoutTheKernelsDriver) {
    Start();
    BusState state;
    EXPECT_THAT(ListCameras(&state), IsEmpty());
    EXPECT_THAT(ListDevices(), IsEmpty());
    EXPECT_EQ(state, BusState{});
    EXPECT_LE(m_sink.Count(), 1u);
}

TEST_F(FireWireDriver, FindsABusWhoseDriverIsLoadedLater) {
    Start();
    EXPECT_THAT(ListCameras(), IsEmpty());
    AddStandardBus();
    EXPECT_TRUE(m_sink.WaitForDevices(3));
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
}

TEST_F(FireWireDriver, ReportsTheWordsOfDevicesAndNoneOfCameras) {
    AddStandardBus();
    Start();
    BusState state;
    ListDevices(&state);
    EXPECT_EQ(state, m_sink.GetLast());
    ASSERT_THAT(state.devices, SizeIs(3));
    const PresentDevice* disk = FindDevice(state, 0x003094000000D15C);
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->firstWord, 0x00309400u);
    EXPECT_EQ(disk->secondWord, 0x0000D15Cu);
    const PresentDevice* camera = FindDevice(state, 0x0011880000031001);
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->firstWord, 0u);
    EXPECT_EQ(camera->secondWord, 0u);
}

TEST_F(FireWireDriver, ListsAUnitOnTwoBusesOnEachInTheOrderOfTheControllers) {
    // The kernel has numbered the controllers in another order than that of their places.
    FireWireBusDescription second = Testing::FireWireBusOfCameras(2, "b.");
    FireWireBusDescription first = Testing::FireWireBusOfCameras(2, "a.");
    first.phys[0].eui64 = 0x0011220000000011;
    first.phys[2].eui64 = 0x0011880000030000;
    m_computer.AddBus(second, SecondCard);
    m_computer.AddBus(first, FirstCard);
    Start();
    EXPECT_THAT(DescribeAll(ListCameras()),
                ElementsAre("0011880000030000 Acme/Zoom 1394 node 1 (0xffc1) bus 1 (1) version 0x000102",
                            "0011880000040000 Acme/Zoom 1394 node 0 (0xffc0) bus 1 (1) version 0x000102",
                            "0011880000040000 Acme/Zoom 1394 node 0 (0xffc0) bus 0 (0) version 0x000102",
                            "0011880000040001 Acme/Zoom 1394 node 1 (0xffc1) bus 0 (0) version 0x000102"));
    EXPECT_THAT(m_sink.GetLast().devices, SizeIs(4));
}

TEST_F(FireWireDriver, ListsTheWholeOfTheLargestBus) {
    FireWireBusDescription bus = Testing::FireWireBusOfCameras(60);
    ASSERT_EQ(bus.phys.size(), 63u) << "two hubs and the controller";
    // The mocking library lets a program have fifty files of devices open.
    m_computer.AddBus(bus, FirstCard);
    for (int i = 40; i < 60; ++i) {
        m_computer.Break("camera" + std::to_string(i));
    }
    Start();
    EXPECT_THAT(ListCameras(), SizeIs(60));
}

TEST_F(FireWireDriver, TakesAUnitOfAnotherKindOfTheTradeAssociationForADevice) {
    m_computer.SetRom("left", {0x0404A5A5, 0x31333934, 0xE000A002, 0x00118800, 0x00031001,  // bus information block
                               0x0001A5A5, 0xD1000001,                                      // unit
                               0x0002A5A5, 0x1200A02D, 0x13010001});                        // AV/C
    AddStandardBus();
    Start();
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestRight));
    EXPECT_THAT(DescribeAll(ListDevices()),
                ElementsAre("0011880000031001 / node 0 (0xffc0) bus 0 (0) version 0x010001",
                            "003094000000d15c Disco/ node 3 (0xffc3) bus 0 (0) version 0x010483"));
}

TEST_F(FireWireDriver, LeavesOutANodeWhoseRomTellsNoIdentity) {
    m_computer.SetRom("left", {0x0104A5A5, 0x00118800});
    AddStandardBus();
    Start();
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestRight));
    EXPECT_THAT(ListDevices(), SizeIs(1));
}

TEST_F(FireWireDriver, OpensTheFileOfEachNodeOnceHoweverOftenItLists) {
    AddStandardBus();
    Start();
    for (int i = 0; i < 3; ++i) {
        ListCameras();
        ListDevices();
    }
    for (const char* phy : {"card", "left", "right", "disk"}) {
        EXPECT_EQ(m_computer.CountClients(phy), 1u) << phy;
    }
    Stop();
    for (const char* phy : {"card", "left", "right", "disk"}) {
        EXPECT_TRUE(WaitUntil([&] { return m_computer.CountClients(phy) == 0; })) << phy;
    }
}

// ---- Coming and going ----------------------------------------------------------------------------------------------

TEST_F(FireWireDriver, ReportsAnArrivalWhenTheKernelAnnouncesIt) {
    AddStandardBus();
    m_computer.Unplug("left");
    m_computer.Forget("left");
    Start();
    EXPECT_TRUE(m_sink.WaitForDevices(2));
    m_computer.PlugUnannounced("left");
    EXPECT_TRUE(m_sink.WaitForResets(1));
    EXPECT_THAT(m_sink.GetLast().devices, SizeIs(2));
    m_computer.Announce("left");
    EXPECT_TRUE(m_sink.WaitForDevices(3));
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
}

TEST_F(FireWireDriver, ReportsADepartureAtOnceAndNotWhenTheKernelGivesUp) {
    AddStandardBus();
    Start();
    const auto left = FindCamera(0x00031001);
    m_computer.Unplug("left");
    EXPECT_TRUE(m_sink.WaitForDevices(2));
    EXPECT_EQ(m_computer.CountClients("left"), 1u) << "its file lives on";
    EXPECT_EQ(Describe(*left), "gone");
    const std::size_t numReports = m_sink.Count();
    m_computer.Forget("left");
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountClients("left") == 0; }));
    ListCameras();
    EXPECT_EQ(m_sink.Count(), numReports) << "that is no news";
}

TEST_F(FireWireDriver, ListsNoNodeThatHasLeftThoughItsFileLivesOn) {
    AddStandardBus();
    Start();
    ASSERT_THAT(ListCameras(), SizeIs(2));
    for (int i = 0; i < 20; ++i) {
        m_computer.Unplug("left");
        // At once: nobody waits until the driver has heard of it.
        BusState state;
        EXPECT_THAT(DescribeAll(ListCameras(&state)),
                    ElementsAre("0011880000031002 Acme/Zoom 1394 node 0 (0xffc0) bus 0 (0) version 0x000102"));
        EXPECT_THAT(state.devices, SizeIs(2));
        EXPECT_EQ(state, m_sink.GetLast()) << "a listing reports what it finds";
        m_computer.Plug("left");
        EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
    }
}

// To the bus master a camera that cannot be identified is a bus without cameras.
TEST_F(FireWireDriver, StillIdentifiesACameraThatLeavesAfterItWasListed) {
    AddStandardBus();
    Start();
    const auto left = FindCamera(0x00031001);
    for (const bool isForgotten : {false, true}) {
        if (isForgotten) {
            m_computer.Forget("left");
            ASSERT_TRUE(WaitUntil([&] { return m_computer.CountClients("left") == 0; }));
        } else {
            m_computer.Unplug("left");
            ASSERT_TRUE(m_sink.WaitForDevices(2));
        }
        ConfigInfo info;
        EXPECT_EQ(left->GetConfigInfo(&info), HAL_OK);
        EXPECT_THAT(info.numbers, ElementsAre(0x00118800, 0xFFFF, 0x00031001, 0xFFFF, 0x000102));
        EXPECT_EQ(info.vendor, "Acme");
        EXPECT_EQ(info.model, "Zoom 1394");
        std::uint16_t number = 0;
        EXPECT_EQ(left->GetNode(&number, &number), HAL_GONE);
    }
}

TEST_F(FireWireDriver, FindsACameraThatIsBackWithinTheKernelsGraceAsTheSameOne) {
    AddStandardBus();
    Start();
    const auto left = FindCamera(0x00031001);
    const BusState before = m_sink.GetLast();
    const std::string file = m_computer.GetFileName("left");
    m_computer.Unplug("left");
    ASSERT_TRUE(m_sink.WaitForDevices(2));
    m_computer.Plug("left");
    ASSERT_TRUE(m_sink.WaitForDevices(3));
    EXPECT_EQ(m_computer.GetFileName("left"), file);
    EXPECT_EQ(FindDevice(m_sink.GetLast(), 0x0011880000031001)->version,
              FindDevice(before, 0x0011880000031001)->version);
    EXPECT_EQ(Describe(*left), TestLeft);
    std::uint32_t value = 0;
    EXPECT_EQ(left->ReadQuadlet(SerialNumberRegister, &value), HAL_OK);
    EXPECT_EQ(value, 0x00031001u);
}

TEST_F(FireWireDriver, TakesACameraThatTheKernelHadGivenUpForAnotherVisit) {
    AddStandardBus();
    Start();
    const auto left = FindCamera(0x00031001);
    const std::uint64_t before = FindDevice(m_sink.GetLast(), 0x0011880000031001)->version;
    m_computer.Unplug("left");
    m_computer.Forget("left");
    m_computer.Plug("left");
    EXPECT_TRUE(m_sink.WaitUntil([&](const BusState& state) {
        const PresentDevice* device = FindDevice(state, 0x0011880000031001);
        return device != nullptr && device->version != before;
    }));
    std::uint32_t value = 0;
    EXPECT_EQ(left->ReadQuadlet(IsoEnableRegister, &value), HAL_OK) << "an entry finds its camera anew";
}

TEST_F(FireWireDriver, TellsNodesApartThatHaveTheSameFileNameOneAfterTheOther) {
    AddStandardBus();
    m_computer.Unplug("right");
    m_computer.Forget("right");
    Start();
    const auto left = FindCamera(0x00031001);
    const std::string file = m_computer.GetFileName("left");
    m_computer.Unplug("left");
    m_computer.Forget("left");
    m_computer.Plug("right");
    ASSERT_EQ(m_computer.GetFileName("right"), file);
    EXPECT_THAT(DescribeAll(ListCameras()),
                ElementsAre("0011880000031002 Acme/Zoom 1394 node 0 (0xffc0) bus 0 (0) version 0x000102"));
    EXPECT_EQ(Describe(*left), "gone");
    std::uint32_t value = 0;
    EXPECT_EQ(left->ReadQuadlet(SerialNumberRegister, &value), HAL_GONE);
}

TEST_F(FireWireDriver, NoticesThatAHubLeavesWithAllThatIsBehindIt) {
    AddStandardBus();
    Start();
    m_computer.Unplug("hub");
    EXPECT_TRUE(m_sink.WaitForDevices(1));
    EXPECT_THAT(ListCameras(), IsEmpty());
    m_computer.Plug("hub");
    EXPECT_TRUE(m_sink.WaitForDevices(3));
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
}

TEST_F(FireWireDriver, DoesNotMistakeANodeWhoseEventIsLateForOneThatHasLeft) {
    AddStandardBus();
    Start();
    m_computer.HoldResetEvents("left", true);
    m_computer.Reset("left");
    ASSERT_TRUE(m_sink.WaitForResets(1));
    EXPECT_THAT(m_sink.GetLast().devices, SizeIs(3));
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
    const std::size_t numReports = m_sink.Count();
    m_computer.HoldResetEvents("left", false);
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
    EXPECT_EQ(m_sink.Count(), numReports);
}

TEST_F(FireWireDriver, ReportsEachResetAndABurstOfThemOnce) {
    AddStandardBus();
    Start();
    const std::uint64_t before = m_sink.GetLast().resets;
    m_computer.Reset("left");
    ASSERT_TRUE(m_sink.WaitForResets(before + 1));
    for (int i = 0; i < 20; ++i) {
        m_computer.Reset("left");
    }
    ASSERT_TRUE(m_sink.WaitForResets(before + 2));
    ListCameras();
    // As many reports as the burst has taken tenths of a second, and by far no twenty.
    EXPECT_LT(m_sink.GetLast().resets, before + 12);
}

TEST_F(FireWireDriver, NoticesThatAControllerIsTakenOut) {
    AddStandardBus();
    FireWireBusDescription other = Testing::FireWireBusOfCameras(1, "b.");
    m_computer.AddBus(other, SecondCard);
    Start();
    ASSERT_THAT(ListCameras(), SizeIs(3));
    m_computer.RemoveBus(FirstCard);
    EXPECT_TRUE(m_sink.WaitForDevices(1));
    EXPECT_THAT(DescribeAll(ListCameras()),
                ElementsAre("0011880000040000 Acme/Zoom 1394 node 0 (0xffc0) bus 1 (1) version 0x000102"));
}

TEST_F(FireWireDriver, ListsTheTextsOfAChangedRom) {
    AddStandardBus();
    Start();
    const std::uint64_t resets = m_sink.GetLast().resets;
    std::vector<std::uint32_t> rom{0x0404A5A5, 0x31333934, 0xE000A002, 0x00118800, 0x00031001, 0x0003A5A5,
                                   0x03001188, 0x81000002, 0xD1000005, 0x0003A5A5, 0x00000000, 0x00000000,
                                   0x4E657700, 0x0002A5A5, 0x1200A02D, 0x13000102};
    m_computer.ChangeRom("left", rom);
    EXPECT_TRUE(m_sink.WaitForResets(resets + 1)) << "users must enumerate anew";
    EXPECT_THAT(DescribeAll(ListCameras()),
                ElementsAre("0011880000031001 New/ node 0 (0xffc0) bus 0 (0) version 0x000102", TestRight));
}

// ---- Permissions ---------------------------------------------------------------------------------------------------

TEST_F(FireWireDriver, ListsACameraThatMayNotBeOpenedWithoutItsNumbers) {
    AddStandardBus();
    m_computer.Deny("left");
    const Testing::NoPermissionOverride user;
    Start();
    EXPECT_THAT(
        DescribeAll(ListCameras()),
        ElementsAre("0011880000031001 Acme/Zoom 1394 node 65535 (0xffff) bus 0 (0) version 0x000102", TestRight));
    const auto left = FindCamera(0x00031001);
    std::uint32_t value = 0;
    EXPECT_EQ(left->ReadQuadlet(SerialNumberRegister, &value), HAL_PERMISSION);
    EXPECT_EQ(left->ReadQuadlet(IsoEnableRegister, &value), HAL_PERMISSION);
    EXPECT_EQ(left->WriteQuadlet(IsoEnableRegister, 1), HAL_PERMISSION);
    EXPECT_EQ(left->ReadPhy(0, 0, 1, &value), HAL_PERMISSION);
    EXPECT_EQ(left->FireBusReset(), HAL_OK) << "any file of the bus will do";
}

TEST_F(FireWireDriver, KeepsACameraThatMayNotBeOpenedUntilTheKernelGivesItUp) {
    AddStandardBus();
    m_computer.Deny("left");
    const Testing::NoPermissionOverride user;
    Start();
    m_computer.Unplug("left");
    ASSERT_TRUE(m_sink.WaitForResets(1));
    EXPECT_THAT(ListCameras(), SizeIs(2)) << "nobody can tell";
    m_computer.Forget("left");
    EXPECT_TRUE(m_sink.WaitForDevices(2));
    EXPECT_THAT(ListCameras(), SizeIs(1));
}

TEST_F(FireWireDriver, OpensAFileOnceItsPermissionsAllowItAndHasUsersEnumerateAnew) {
    AddStandardBus();
    m_computer.Deny("left");
    const Testing::NoPermissionOverride user;
    Start();
    const auto left = FindCamera(0x00031001);
    const std::uint64_t resets = m_sink.GetLast().resets;
    m_computer.Allow("left");
    m_computer.SendChangeUevent("left");
    EXPECT_TRUE(m_sink.WaitForResets(resets + 1));
    EXPECT_EQ(Describe(*left), TestLeft);
}

TEST_F(FireWireDriver, WaitsForThePermissionsThatUdevSetsAfterTheKernelHasToldOfANode) {
    AddStandardBus();
    m_computer.Unplug("left");
    m_computer.Forget("left");
    const Testing::NoPermissionOverride user;
    Start();
    m_computer.Deny("left");
    m_computer.Plug("left");
    ASSERT_TRUE(m_sink.WaitForDevices(3));
    const auto left = FindCamera(0x00031001);
    m_computer.Allow("left");
    EXPECT_TRUE(WaitUntil([&] { return Describe(*left) == TestLeft; }));
}

TEST_F(FireWireDriver, NoticesDeparturesByOtherFilesWhenTheControllersOwnMayNotBeOpened) {
    AddStandardBus();
    m_computer.Deny("card");
    const Testing::NoPermissionOverride user;
    Start();
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
    m_computer.Unplug("left");
    EXPECT_TRUE(m_sink.WaitForDevices(2));
    m_computer.Plug("left");
    EXPECT_TRUE(m_sink.WaitForDevices(3));
    EXPECT_THAT(DescribeAll(ListCameras()), ElementsAre(TestLeft, TestRight));
}

TEST_F(FireWireDriver, ListsABusOfWhichNoFileMayBeOpened) {
    AddStandardBus();
    for (const char* phy : {"card", "left", "right", "disk"}) {
        m_computer.Deny(phy);
    }
    const Testing::NoPermissionOverride user;
    Start();
    EXPECT_THAT(DescribeAll(ListCameras()),
                ElementsAre("0011880000031001 Acme/Zoom 1394 node 65535 (0xffff) bus 65535 (65535) version 0x000102",
                            "0011880000031002 Acme/Zoom 1394 node 65535 (0xffff) bus 65535 (65535) version 0x000102"));
    EXPECT_EQ(FindCamera(0x00031001)->FireBusReset(), HAL_PERMISSION);
}

// ---- Want ---------------------------------------------------------------------------------------------------------

/// This process may open so many files and no more while this lives.
class FewDescriptors {
public:
    explicit FewDescriptors(int number) {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        Take();
        EXPECT_FALSE(m_taken.empty());
        // Not far below what is open, for the mocking library polls on many files.
        const rlimit lowered{static_cast<rlim_t>(m_taken.back() + 100), m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
        while (Take()) {
        }
        for (int i = 0; i < number; ++i) {
            ::close(m_taken.back());
            m_taken.pop_back();
        }
    }
    ~FewDescriptors() {
        for (const int descriptor : m_taken) {
            ::close(descriptor);
        }
        ::setrlimit(RLIMIT_NOFILE, &m_before);
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    bool Take() {
        const int descriptor = ::fcntl(0, F_DUPFD_CLOEXEC, 0);
        if (descriptor >= 0) {
            m_taken.push_back(descriptor);
        }
        return descriptor >= 0;
    }

    rlimit m_before{};
    std::vector<int> m_taken;
};

TEST_F(FireWireDriver, FindsAllNodesOrSaysThatItHasNoDescriptorToLookWith) {
    AddStandardBus();
    int numFailures = 0;
    for (int number = 0; number < 6; ++number) {
        std::vector<ScannedNode> nodes;
        int error = 0;
        {
            const FewDescriptors few(number);
            error = ScanNodes(&nodes);
        }
        if (error == 0) {
            EXPECT_THAT(nodes, SizeIs(4)) << number;
            EXPECT_EQ(std::count_if(nodes.begin(), nodes.end(), [](const auto& node) { return node.isLocal; }), 1);
        } else {
            EXPECT_EQ(error, EMFILE);
            ++numFailures;
        }
    }
    EXPECT_GE(numFailures, 3) << "the folder, a node's folder, its attributes";
}

TEST_F(FireWireDriver, KeepsItsNodesWhileItHasNoDescriptorToLookWith) {
    AddStandardBus();
    Start();
    ASSERT_THAT(ListCameras(), SizeIs(2));
    const std::size_t numReports = m_sink.Count();
    for (int i = 0; i < 5; ++i) {
        m_computer.SendChangeUevent("left");
        const FewDescriptors none(0);
        EXPECT_THAT(ListCameras(), SizeIs(2));
    }
    EXPECT_EQ(m_sink.Count(), numReports);
    m_computer.Unplug("left");
    m_computer.Forget("left");
    EXPECT_THAT(ListCameras(), SizeIs(1));
}

// ---- The end -------------------------------------------------------------------------------------------------------

TEST_F(FireWireDriver, AnswersClosedAfterItsEnd) {
    AddStandardBus();
    Start();
    const auto left = FindCamera(0x00031001);
    const auto bus = std::move(m_bus);
    bus->Stop();
    Listing<FireWireDevice> listing;
    EXPECT_EQ(bus->ListCameras(&listing), HAL_CLOSED);
    ConfigInfo info;
    std::uint32_t value = 0;
    std::uint16_t number = 0;
    std::uint64_t key = 0;
    std::vector<SelfIdPacket_t> packets;
    std::vector<std::uint32_t> serialNumbers;
    FireWireDiagnosis diagnosis;
    EXPECT_EQ(left->GetConfigInfo(&info), HAL_CLOSED);
    EXPECT_EQ(left->GetEui64(&value, &value), HAL_CLOSED);
    EXPECT_EQ(left->GetNode(&number, &number), HAL_CLOSED);
    EXPECT_EQ(left->ReadQuadlet(SerialNumberRegister, &value), HAL_CLOSED);
    EXPECT_EQ(left->ReadQuadlet(IsoEnableRegister, &value), HAL_CLOSED);
    EXPECT_EQ(left->WriteQuadlet(IsoEnableRegister, 0), HAL_CLOSED);
    EXPECT_EQ(left->ReadPhy(0, 0, 1, &value), HAL_CLOSED);
    EXPECT_EQ(left->WritePhy(0, 0, 1, 0), HAL_CLOSED);
    EXPECT_EQ(left->FireBusReset(), HAL_CLOSED);
    EXPECT_EQ(left->GetSelfIds(&packets, &key, &value), HAL_CLOSED);
    EXPECT_EQ(left->GetNodeSerialNumbers(&serialNumbers), HAL_CLOSED);
    EXPECT_EQ(bus->Diagnose(true, &diagnosis), HAL_CLOSED);
    std::vector<BusMap> maps;
    EXPECT_EQ(bus->Describe(&maps), HAL_CLOSED);
}

TEST_F(FireWireDriver, ReportsNothingAfterItsEnd) {
    AddStandardBus();
    Start();
    Stop();
    const std::size_t numReports = m_sink.Count();
    m_computer.Unplug("left");
    m_computer.Forget("left");
    EXPECT_EQ(m_sink.Count(), numReports);
}

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
