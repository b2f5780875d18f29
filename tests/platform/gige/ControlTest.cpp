// SPDX-License-Identifier: Apache-2.0
// Who controls a camera, and what a camera's refusals come to.
#include "platform/gvcp/GvcpCodec.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::ControlInfo;
using Platform::ControlState;
using Platform::Gvcp::MessageId;
using Platform::Simulated::ControlOwner;
using Platform::Simulated::ErrorRule;
using Platform::Simulated::SimulatedGigECamera;
using ::testing::ElementsAre;

class GigEControl : public GigEWireTest {
protected:
    ControlInfo ControlOf(std::size_t index) {
        ControlInfo control;
        EXPECT_EQ(m_driver->GetRegisters().GetControl(m_listed.at(index).key, &control), HAL_OK);
        return control;
    }

    bool IsInMonitorMode(std::size_t index) {
        bool monitor = false;
        EXPECT_EQ(m_driver->IsInMonitorMode(m_listed.at(index), &monitor), HAL_OK);
        return monitor;
    }
};

TEST_F(GigEControl, OfAFreeCameraIsNobodys) {
    AddCamera("192.168.77.102", 2);
    StartDriver();
    EXPECT_EQ(ControlOf(0).state, ControlState::Free);
    EXPECT_FALSE(IsInMonitorMode(0));
}

TEST_F(GigEControl, HeldElsewhereLeavesOnlyWatching) {
    auto options = CameraOptions("192.168.77.102", 2);
    options.owner = ControlOwner{{Ip("192.168.77.60"), 1234}, false};
    AddCamera(options);
    options = CameraOptions("192.168.77.103", 3);
    options.owner = ControlOwner{{Ip("192.168.77.60"), 1234}, false};
    options.tellsOwner = false;
    AddCamera(options);
    StartDriver();
    ASSERT_EQ(m_listed.size(), 2u);
    const ControlInfo told = ControlOf(0);
    EXPECT_EQ(told.state, ControlState::Controlled);
    EXPECT_EQ(told.ownerIp, Ip("192.168.77.60"));
    EXPECT_EQ(told.ownerPort, 1234);
    const ControlInfo untold = ControlOf(1);
    EXPECT_EQ(untold.state, ControlState::Controlled);
    EXPECT_EQ(untold.ownerIp, 0u);
    EXPECT_TRUE(IsInMonitorMode(0));
    EXPECT_TRUE(IsInMonitorMode(1));
}

TEST_F(GigEControl, HeldExclusivelyRefusesReadsButNotTheListing) {
    auto options = CameraOptions("192.168.77.102", 2);
    options.owner = ControlOwner{{Ip("192.168.77.60"), 1234}, true};
    AddCamera(options);
    StartDriver();
    ASSERT_EQ(m_listed.size(), 1u);
    EXPECT_EQ(ControlOf(0).state, ControlState::Exclusive);
    EXPECT_TRUE(IsInMonitorMode(0));
    std::uint32_t value = 0;
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0x934, &value), HAL_ACCESS_DENIED);
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0x24, &value), HAL_OK);
    EXPECT_EQ(value, Ip("192.168.77.102"));
}

TEST_F(GigEControl, TakenByThisApplicationIsOurs) {
    auto options = CameraOptions("192.168.77.102", 2);
    AddCamera(options);
    options = CameraOptions("192.168.77.103", 3);
    options.tellsOwner = false;
    AddCamera(options);
    StartDriver();
    ASSERT_EQ(m_listed.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(m_driver->WriteRegister(m_listed[i], 0xA00, 2), HAL_OK);
        EXPECT_EQ(ControlOf(i).state, ControlState::Ours);
        EXPECT_FALSE(IsInMonitorMode(i));
    }
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    ASSERT_EQ(m_driver->GetRegisters().GetLocalEnd(m_listed[0].key, &ip, &port), HAL_OK);
    std::uint32_t value = 0;
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0xA04, &value), HAL_OK);
    EXPECT_EQ(value, port);
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0xA14, &value), HAL_OK);
    EXPECT_EQ(value, ip);
    EXPECT_EQ(ip, Ip("192.168.77.1"));
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(m_driver->WriteRegister(m_listed[i], 0xA00, 0), HAL_OK);
        EXPECT_EQ(ControlOf(i).state, ControlState::Free);
    }
}

TEST_F(GigEControl, OfAnIndependentCameraIsSeenToComeAndGo) {
    IndependentCamera camera(m_wire, "192.168.77.100", "7");
    StartDriver();
    ASSERT_EQ(m_listed.size(), 1u);
    EXPECT_FALSE(IsInMonitorMode(0));
    RawGvcp other(m_host);
    ASSERT_TRUE(other.Write("192.168.77.100", 0xA00, 2));
    EXPECT_TRUE(IsInMonitorMode(0));
    EXPECT_EQ(ControlOf(0).ownerIp, 0u) << "it does not say who";
    ASSERT_TRUE(other.Write("192.168.77.100", 0xA00, 0));
    EXPECT_FALSE(IsInMonitorMode(0));
    EXPECT_EQ(m_driver->WriteRegister(m_listed[0], 0xA00, 2), HAL_OK);
    EXPECT_EQ(ControlOf(0).state, ControlState::Ours);
}

TEST_F(GigEControl, IsReadByListingsAndByNobodyElse) {
    m_cameras.reset();
    HostileDevice device(m_wire, Ip("192.168.77.100"), [](HostileDevice& self, const HostileDevice::Request& request) {
        if (request.Is(MessageId::DiscoveryCmd)) {
            self.Answer(request, HostileDevice::DiscoveryAck(request, 0x020000000007, Ip("192.168.77.100")));
        } else if (request.Is(MessageId::ReadRegCmd)) {
            self.Answer(request, HostileDevice::ReadAck(request, 0));
        }
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    const auto reads = [&] {
        std::vector<std::uint32_t> addresses;
        for (const auto& request : device.GetRequests()) {
            if (request.Is(MessageId::ReadRegCmd)) {
                addresses.push_back(request.Address());
            }
        }
        return addresses;
    };
    EXPECT_THAT(reads(), ElementsAre(0xA00, 0x24)) << "one read answers it for a free camera";
    const auto countProbes = [&] {
        const auto requests = device.GetRequests();
        return std::count_if(requests.begin(), requests.end(), [](const auto& request) {
            return request.Is(MessageId::DiscoveryCmd) && request.to == Ip("192.168.77.100");
        });
    };
    const auto deadline = Clock::now() + 20s;
    while (countProbes() < 6 && Clock::now() < deadline) {
        device.WaitFor([](const auto&) { return false; }, 10ms);
    }
    EXPECT_GE(countProbes(), 6) << "several of the monitor's rounds";
    EXPECT_EQ(reads().size(), 2u);
}

TEST_F(GigEControl, OfANewEntryIsAnsweredFromItsListingOnceAndThenByTheCamera) {
    m_cameras.reset();
    std::atomic<std::uint32_t> privilege{0};
    HostileDevice device(m_wire, Ip("192.168.77.100"), [&](HostileDevice& self, const HostileDevice::Request& request) {
        if (request.Is(MessageId::DiscoveryCmd)) {
            self.Answer(request, HostileDevice::DiscoveryAck(request, 0x020000000007, Ip("192.168.77.100")));
        } else if (request.Is(MessageId::ReadRegCmd)) {
            const bool address = request.Address() == 0x24;
            self.Answer(request, HostileDevice::ReadAck(request, address ? Ip("192.168.77.100") : privilege.load()));
        }
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    const auto countReads = [&] {
        const auto requests = device.GetRequests();
        return std::count_if(requests.begin(), requests.end(),
                             [](const auto& request) { return request.Is(MessageId::ReadRegCmd); });
    };
    const auto read = countReads();
    privilege = 2;
    bool monitor = true;
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[0]->IsInMonitorMode(&monitor), HAL_OK);
    EXPECT_FALSE(monitor) << "as the listing has read";
    EXPECT_EQ(cameras[0]->ReadRegister(0x24, &value), HAL_OK);
    EXPECT_EQ(value, Ip("192.168.77.100"));
    EXPECT_EQ(countReads(), read) << "for nothing that was read already";
    EXPECT_EQ(cameras[0]->IsInMonitorMode(&monitor), HAL_OK);
    EXPECT_TRUE(monitor) << "as the camera says now";
    EXPECT_EQ(cameras[0]->ReadRegister(0x24, &value), HAL_OK);
    EXPECT_GE(countReads(), read + 2);
}

struct StatusRow {
    const char* name;
    Platform::Gvcp::Status gvcp;
    std::uint32_t hal;
};

class GigERefusal : public GigEControl, public ::testing::WithParamInterface<StatusRow> {};

TEST_P(GigERefusal, BecomesAStatusExceptForTheAddressOfAPresentCamera) {
    auto options = CameraOptions("192.168.77.102", 2);
    ErrorRule rule;
    rule.command = MessageId::ReadRegCmd;
    rule.status = GetParam().gvcp;
    options.faults.errors.push_back(rule);
    AddCamera(options);
    StartDriver();
    ASSERT_EQ(m_listed.size(), 1u);
    std::uint32_t value = 0;
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0x934, &value), GetParam().hal);
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0x24, &value), HAL_OK);
    EXPECT_EQ(value, Ip("192.168.77.102"));
    EXPECT_TRUE(IsInMonitorMode(0)) << "who does not say who controls it may only be watched";
}

using Status = Platform::Gvcp::Status;
INSTANTIATE_TEST_SUITE_P(Statuses, GigERefusal,
                         ::testing::Values(StatusRow{"AccessDenied", Status::AccessDenied, HAL_ACCESS_DENIED},
                                           StatusRow{"InvalidAddress", Status::InvalidAddress, HAL_NO_SUCH_REGISTER},
                                           StatusRow{"Busy", Status::Busy, HAL_BUSY},
                                           StatusRow{"Error", Status::Error, HAL_REFUSED}),
                         [](const auto& row) { return row.param.name; });

TEST_F(GigEControl, OfACameraThatFallsSilentFailsNoEnumeration) {
    const auto id = AddCamera("192.168.77.102", 2);
    StartDriver();
    ASSERT_EQ(m_listed.size(), 1u);
    m_cameras->Use(id, [](SimulatedGigECamera& camera) { camera.SetSilent(true); });
    const auto start = Clock::now();
    // What an enumeration asks of a camera that it has been given: it goes on while the camera goes.
    EXPECT_TRUE(IsInMonitorMode(0));
    EXPECT_LT(Since(start), 1700ms) << "it is asked for one register, not for three";
    std::uint32_t value = 0;
    GvcpDiscoveryRecord record{};
    while (Since(start) < 2s) {
        const auto call = Clock::now();
        EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0x24, &value), HAL_OK);
        EXPECT_EQ(value, Ip("192.168.77.102"));
        EXPECT_TRUE(IsInMonitorMode(0));
        EXPECT_EQ(m_driver->GetRecord(m_listed[0], &record), HAL_OK);
        EXPECT_LT(Since(call), 590ms) << "one that does not answer is not waited for again and again";
        m_sink.WaitFor([](const auto& counts) { return counts.removals > 0; }, 100ms);
    }
    EXPECT_EQ(m_sink.GetCounts().removals, 1);
    const auto grace = Clock::now() + 3s;
    while (m_driver->ReadRegister(m_listed[0], 0x24, &value) == HAL_OK && Clock::now() < grace) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0x24, &value), HAL_GONE);
    EXPECT_EQ(m_driver->WriteRegister(m_listed[0], 0xA00, 2), HAL_GONE);
    bool monitor = false;
    EXPECT_EQ(m_driver->IsInMonitorMode(m_listed[0], &monitor), HAL_GONE);
    EXPECT_EQ(m_driver->GetRecord(m_listed[0], &record), HAL_OK) << "what the listing saw stays true";
    m_cameras->Use(id, [](SimulatedGigECamera& camera) { camera.SetSilent(false); });
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.arrivals > 0; }, 5s));
    EXPECT_EQ(m_driver->ReadRegister(m_listed[0], 0x24, &value), HAL_OK) << "the entry finds it again";
}

}  // namespace
}  // namespace Nimbrel2::Testing
