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
        EXPECT_EQ(m_core->GetControl(m_listed.at(index), &control), HAL_OK);
        return control;
    }

    bool IsInMonitorMode(std::size_t index) {
        bool monitor = false;
        EXPECT_EQ(m_core->IsInMonitorMode(m_listed.at(index), &monitor), HAL_OK);
        return monitor;
    }
};

TEST_F(GigEControl, OfAFreeCameraIsNobodys) {
    AddCamera("192.168.77.102", 2);
    StartCore();
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
    StartCore();
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
    StartCore();
    ASSERT_EQ(m_listed.size(), 1u);
    EXPECT_EQ(ControlOf(0).state, ControlState::Exclusive);
    EXPECT_TRUE(IsInMonitorMode(0));
    std::uint32_t value = 0;
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0x934, &value), HAL_ACCESS_DENIED);
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0x24, &value), HAL_OK);
    EXPECT_EQ(value, Ip("192.168.77.102"));
}

TEST_F(GigEControl, TakenByThisApplicationIsOurs) {
    auto options = CameraOptions("192.168.77.102", 2);
    AddCamera(options);
    options = CameraOptions("192.168.77.103", 3);
    options.tellsOwner = false;
    AddCamera(options);
    StartCore();
    ASSERT_EQ(m_listed.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(m_core->WriteRegister(m_listed[i], 0xA00, 2), HAL_OK);
        EXPECT_EQ(ControlOf(i).state, ControlState::Ours);
        EXPECT_FALSE(IsInMonitorMode(i));
    }
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    ASSERT_EQ(m_core->GetLocalEnd(m_listed[0], &ip, &port), HAL_OK);
    std::uint32_t value = 0;
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0xA04, &value), HAL_OK);
    EXPECT_EQ(value, port);
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0xA14, &value), HAL_OK);
    EXPECT_EQ(value, ip);
    EXPECT_EQ(ip, Ip("192.168.77.1"));
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(m_core->WriteRegister(m_listed[i], 0xA00, 0), HAL_OK);
        EXPECT_EQ(ControlOf(i).state, ControlState::Free);
    }
}

TEST_F(GigEControl, OfAnIndependentCameraIsSeenToComeAndGo) {
    IndependentCamera camera(m_wire, "192.168.77.100", "7");
    StartCore();
    ASSERT_EQ(m_listed.size(), 1u);
    EXPECT_FALSE(IsInMonitorMode(0));
    RawGvcp other(m_host);
    ASSERT_TRUE(other.Write("192.168.77.100", 0xA00, 2));
    EXPECT_TRUE(IsInMonitorMode(0));
    EXPECT_EQ(ControlOf(0).ownerIp, 0u) << "it does not say who";
    ASSERT_TRUE(other.Write("192.168.77.100", 0xA00, 0));
    EXPECT_FALSE(IsInMonitorMode(0));
    EXPECT_EQ(m_core->WriteRegister(m_listed[0], 0xA00, 2), HAL_OK);
    EXPECT_EQ(ControlOf(0).state, ControlState::Ours);
}

TEST_F(GigEControl, IsAskedForOnlyWhenSomebodyWantsToKnow) {
    m_cameras.reset();
    HostileDevice device(m_wire, Ip("192.168.77.100"), [](HostileDevice& self, const HostileDevice::Request& request) {
        if (request.Is(MessageId::DiscoveryCmd)) {
            self.Answer(request, HostileDevice::DiscoveryAck(request, 0x020000000007, Ip("192.168.77.100")));
        } else if (request.Is(MessageId::ReadRegCmd)) {
            self.Answer(request, HostileDevice::ReadAck(request, 0));
        }
    });
    StartCore();
    ASSERT_EQ(m_listed.size(), 1u);
    ASSERT_EQ(ListCore(), HAL_OK);
    const auto countProbes = [&] {
        const auto requests = device.GetRequests();
        return std::count_if(requests.begin(), requests.end(),
                             [](const auto& request) { return request.to == Ip("192.168.77.100"); });
    };
    const auto deadline = Clock::now() + 10s;
    while (countProbes() < 6 && Clock::now() < deadline) device.WaitFor([](const auto&) { return false; }, 10ms);
    EXPECT_GE(countProbes(), 6) << "several of the monitor's rounds";
    for (const auto& request : device.GetRequests()) EXPECT_TRUE(request.Is(MessageId::DiscoveryCmd));
    EXPECT_FALSE(IsInMonitorMode(0));
    std::vector<std::uint32_t> reads;
    for (const auto& request : device.GetRequests()) {
        if (request.Is(MessageId::ReadRegCmd)) reads.push_back(request.Address());
    }
    EXPECT_THAT(reads, ElementsAre(0xA00)) << "one read answers it for a free camera";
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
    StartCore();
    ASSERT_EQ(m_listed.size(), 1u);
    std::uint32_t value = 0;
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0x934, &value), GetParam().hal);
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0x24, &value), HAL_OK);
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
    StartCore();
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
        EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0x24, &value), HAL_OK);
        EXPECT_EQ(value, Ip("192.168.77.102"));
        EXPECT_TRUE(IsInMonitorMode(0));
        EXPECT_EQ(m_core->GetRecord(m_listed[0], &record), HAL_OK);
        EXPECT_LT(Since(call), 590ms) << "one that does not answer is not waited for again and again";
        m_sink.WaitFor([](const auto& counts) { return counts.removals > 0; }, 100ms);
    }
    EXPECT_EQ(m_sink.GetCounts().removals, 1);
    const auto grace = Clock::now() + 3s;
    while (m_core->ReadRegister(m_listed[0], 0x24, &value) == HAL_OK && Clock::now() < grace) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0x24, &value), HAL_GONE);
    EXPECT_EQ(m_core->WriteRegister(m_listed[0], 0xA00, 2), HAL_GONE);
    bool monitor = false;
    EXPECT_EQ(m_core->IsInMonitorMode(m_listed[0], &monitor), HAL_GONE);
    EXPECT_EQ(m_core->GetRecord(m_listed[0], &record), HAL_OK) << "what the listing saw stays true";
    m_cameras->Use(id, [](SimulatedGigECamera& camera) { camera.SetSilent(false); });
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.arrivals > 0; }, 5s));
    EXPECT_EQ(m_core->ReadRegister(m_listed[0], 0x24, &value), HAL_OK) << "the entry finds it again";
}

}  // namespace
}  // namespace Nimbrel2::Testing
