// SPDX-License-Identifier: Apache-2.0
// A computer that is short of memory: each operation fails alone, and the next one finds everything in order. A binary
// of its own, because it replaces operator new.
#include <new>

#include "tests/platform/firewire/FireWireFixture.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

using Testing::AllocationFailure;
using ::testing::SizeIs;

using FireWireAllocationFailure = FireWireDriver;

TEST_F(FireWireAllocationFailure, OfAnOperationLeavesTheNextOneWhole) {
    AddStandardBus();
    Start();
    const auto left = FindCamera(0x00031001);
    ASSERT_TRUE(left);
    std::uint32_t value = 0;
    std::uint64_t key = 0;
    Listing<FireWireDevice> listing;
    std::vector<SelfIdPacket_t> packets;
    std::vector<std::uint32_t> serialNumbers;
    FireWireDiagnosis diagnosis;
    ConfigInfo info;
    const std::vector<std::pair<const char*, std::function<std::uint32_t()>>> operations{
        {"ListCameras",
         [&] {
             listing = {};
             return m_bus->ListCameras(&listing);
         }},
        {"ListDevices",
         [&] {
             listing = {};
             return m_bus->ListDevices(&listing);
         }},
        {"GetConfigInfo", [&] { return left->GetConfigInfo(&info); }},
        {"ReadQuadlet", [&] { return left->ReadQuadlet(IsoEnableRegister, &value); }},
        {"WriteQuadlet", [&] { return left->WriteQuadlet(IsoEnableRegister, 1); }},
        {"the serial number", [&] { return left->ReadQuadlet(SerialNumberRegister, &value); }},
        {"ReadPhy", [&] { return left->ReadPhy(0, 0, 1, &value); }},
        {"GetSelfIds", [&] { return left->GetSelfIds(&packets, &key, &value); }},
        {"GetNodeSerialNumbers", [&] { return left->GetNodeSerialNumbers(&serialNumbers); }},
        {"FireBusReset", [&] { return left->FireBusReset(); }},
        {"Diagnose", [&] { return m_bus->Diagnose(true, &diagnosis); }},
    };
    for (const auto& [name, operation] : operations) {
        bool failed = true;
        for (std::uint64_t failing = 1; failed; ++failing) {
            {
                const AllocationFailure failure(failing);
                try {
                    operation();
                } catch (const std::bad_alloc&) {
                }
                failed = failure.Happened();
            }
            EXPECT_EQ(operation(), HAL_OK) << name << ", allocation " << failing;
        }
    }
    EXPECT_THAT(ListCameras(), SizeIs(2));
}

TEST_F(FireWireAllocationFailure, OfAStartLetsTheNextStartFindEverything) {
    AddStandardBus();
    bool failed = true;
    for (std::uint64_t failing = 1; failed; ++failing) {
        {
            const AllocationFailure failure(failing);
            try {
                m_bus = MakeLinuxFireWireBus(m_sink);
                m_bus->Start();
            } catch (const std::bad_alloc&) {
            }
            failed = failure.Happened();
        }
        Stop();
    }
    Start();
    EXPECT_THAT(ListCameras(), SizeIs(2));
    for (const char* phy : {"card", "left", "right", "disk"}) {
        EXPECT_TRUE(WaitUntil([&] { return m_computer.CountClients(phy) == 1; })) << phy;
    }
}

// Each time one allocation of the monitor fails, from what the kernel tells to what is reported.
class FireWireMonitorWithoutMemory : public FireWireAllocationFailure {
protected:
    /// Does the same with the first allocation of the monitor failing, then the second one, until none is left.
    template <class Step>
    void Sweep(const Step& step) {
        bool failed = true;
        for (std::uint64_t failing = 1; failed && !HasFailure(); ++failing) {
            const AllocationFailure failure(failing, "1394-monitor");
            SCOPED_TRACE("allocation " + std::to_string(failing));
            step();
            failed = failure.Happened();
        }
        for (const char* phy : {"card", "left", "right", "disk"}) {
            EXPECT_TRUE(WaitUntil([&] { return m_computer.CountClients(phy) == 1; })) << phy;
        }
        EXPECT_THAT(ListCameras(), SizeIs(2));
    }
};

TEST_F(FireWireMonitorWithoutMemory, LosesNoDepartureAndNoArrival) {
    AddStandardBus();
    Start();
    Sweep([this] {
        m_computer.Unplug("left");
        EXPECT_TRUE(m_sink.WaitForDevices(2));
        m_computer.Forget("left");
        m_computer.Plug("left");
        EXPECT_TRUE(m_sink.WaitForDevices(3));
        const auto left = FindCamera(0x00031001);
        EXPECT_TRUE(left &&
                    WaitUntil([&] { return Describe(*left).ends_with("node 0 (0xffc0) bus 0 (0) version 0x000102"); }));
    });
}

TEST_F(FireWireMonitorWithoutMemory, LosesNoCameraThatIsBackWithinTheKernelsGrace) {
    AddStandardBus();
    Start();
    Sweep([this] {
        m_computer.Unplug("left");
        EXPECT_TRUE(m_sink.WaitForDevices(2));
        m_computer.Plug("left");
        EXPECT_TRUE(m_sink.WaitForDevices(3));
    });
}

TEST_F(FireWireMonitorWithoutMemory, LosesNoResetAndTellsTheTreeThatFollows) {
    AddStandardBus();
    Start();
    const auto left = FindCamera(0x00031001);
    std::uint64_t resets = m_sink.GetLast().resets;
    Sweep([&] {
        m_computer.Reset("left");
        EXPECT_TRUE(m_sink.WaitForResets(++resets));
        resets = m_sink.GetLast().resets;
        std::vector<SelfIdPacket_t> packets;
        std::uint64_t key = 0;
        std::uint32_t generation = 0;
        EXPECT_EQ(left->GetSelfIds(&packets, &key, &generation), HAL_OK);
        EXPECT_THAT(packets, SizeIs(6));
    });
}

TEST_F(FireWireMonitorWithoutMemory, LosesNoChangeOfARom) {
    const std::vector<std::uint32_t> rom{0x0404A5A5, 0x31333934, 0xE000A002, 0x00118800, 0x00031001,
                                         0x0003A5A5, 0x03001188, 0x81000002, 0xD1000008, 0x0006A5A5,
                                         0x00000000, 0x00000000, 0x41206E61, 0x6D652074, 0x68617420,
                                         0x64696666, 0x0002A5A5, 0x1200A02D, 0x13000102};
    AddStandardBus();
    Start();
    std::uint32_t letter = 0;
    Sweep([&] {
        letter = (letter + 1) % 26;
        const std::uint64_t resets = m_sink.GetLast().resets;
        std::vector<std::uint32_t> changed = rom;
        changed[12] += letter << 24;
        m_computer.ChangeRom("left", changed);
        EXPECT_TRUE(m_sink.WaitForResets(resets + 1));
        ConfigInfo info;
        const auto left = FindCamera(0x00031001);
        ASSERT_TRUE(left);
        EXPECT_EQ(left->GetConfigInfo(&info), HAL_OK);
        EXPECT_EQ(info.vendor, std::string(1, static_cast<char>('A' + letter)) + " name that diff");
    });
}

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
