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

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
