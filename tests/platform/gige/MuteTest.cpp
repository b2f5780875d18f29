// SPDX-License-Identifier: Apache-2.0
// Cameras that answer discoveries and no registers, beside others that answer both.
#include "platform/gvcp/GvcpCodec.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::GigEUsability;
using Platform::Gvcp::MessageId;
using Request = HostileDevice::Request;

constexpr std::uint32_t NumCameras = 64;
constexpr std::uint32_t NumMuteCameras = 8;
constexpr std::chrono::milliseconds MuteWait{2000};

/// 56 simulated cameras at 192.168.77.10 and above, and at 192.168.77.201 to 208 a device that is eight cameras.
class GigEMute : public GigEWireTest {
protected:
    GigEMute() {
        ConnectToo(m_elsewhere);
        for (std::uint32_t i = 0; i < NumMuteCameras; ++i) {
            m_elsewhere.Ip("addr add " + Platform::FormatIp(MuteIp(i)) + "/24 dev e0");
        }
        for (std::uint32_t i = 0; i < NumCameras - NumMuteCameras; ++i) {
            auto options = CameraOptions(Platform::FormatIp(Ip("192.168.77.10") + i), 1 + i);
            options.interfaceName = "br0";
            AddCamera(options);
        }
    }

    static std::uint32_t MuteIp(std::uint32_t i) { return Ip("192.168.77.201") + i; }

    /// @param answer  What they say to a request for a register.
    [[nodiscard]] HostileDevice MakeMute(const std::function<void(HostileDevice&, const Request&)>& answer) {
        return HostileDevice(m_elsewhere, MuteIp(0), [answer](HostileDevice& device, const Request& request) {
            if (request.Is(MessageId::ReadRegCmd)) {
                answer(device, request);
            }
            if (!request.Is(MessageId::DiscoveryCmd)) {
                return;
            }
            for (std::uint32_t i = 0; i < NumMuteCameras; ++i) {
                const std::uint32_t ip = MuteIp(i);
                if (request.to != ip && request.to != 0xFFFFFFFF) {
                    continue;
                }
                device.AnswerFrom(request, ip, 3956, HostileDevice::DiscoveryAck(request, 0x066600000000 + i, ip));
            }
        });
    }

    void StartPatiently() {
        Platform::GigE::Timings timings;
        timings.discoveryWindow = m_window;
        timings.verifyWait = 1s;  // also on a loaded computer nobody is mute who is only slow
        timings.muteWait = MuteWait;
        StartDriver(timings);
    }

    /// Lists, and looks at what an enumeration is told of each camera.
    std::chrono::milliseconds Enumerate() {
        const auto start = Clock::now();
        EXPECT_EQ(ListOfDriver(), HAL_OK);
        EXPECT_EQ(m_listed.size(), NumCameras);
        for (const Platform::GigE::ListedCamera& camera : m_listed) {
            const auto& readings = camera.readings;
            EXPECT_FALSE(readings.skipped) << "the enumeration would have to ask, and to wait";
            bool monitor = false;
            EXPECT_EQ(m_driver->ConcludeMonitorMode(camera, readings.controlStatus, readings.control, &monitor),
                      HAL_OK);
            EXPECT_EQ(monitor, camera.record.ipAddress >= MuteIp(0)) << "one that does not answer may only be watched";
            std::uint32_t ip = readings.value;
            EXPECT_EQ(m_driver->ConcludeAddress(camera, readings.valueStatus, &ip), HAL_OK);
            EXPECT_EQ(ip, camera.record.ipAddress);
        }
        return Since(start);
    }

    void ListAgainAndAgain() {
        const auto start = Clock::now();
        StartPatiently();
        Enumerate();
        EXPECT_LT(Since(start), NumMuteCameras * MuteWait) << "all are waited for at once";
        EXPECT_EQ(CountMuteInDiagnosis(), NumMuteCameras);
        EXPECT_LT(Enumerate(), MuteWait) << "and once";
        EXPECT_LT(Enumerate(), MuteWait);
    }

    std::size_t CountMuteInDiagnosis() {
        Platform::GigEDiagnosis diagnosis;
        EXPECT_EQ(m_driver->Diagnose(false, &diagnosis), HAL_OK);
        return static_cast<std::size_t>(
            std::count_if(diagnosis.cameras.begin(), diagnosis.cameras.end(),
                          [](const auto& camera) { return camera.usability == GigEUsability::NoRegisters; }));
    }

    NetworkNamespace m_elsewhere;
};

TEST_F(GigEMute, CamerasHoldAListingUpOnce) {
    const HostileDevice mute = MakeMute([](HostileDevice&, const Request&) {});
    ListAgainAndAgain();
}

TEST_F(GigEMute, CamerasThatAskForTimeForEverAreTreatedAlike) {
    const HostileDevice mute = MakeMute([](HostileDevice& device, const Request& request) {
        device.AnswerFrom(request, request.to, 3956,
                          Platform::Gvcp::EncodePendingAck(request.header.requestId, 0xFFFF).GetBytes());
    });
    ListAgainAndAgain();
}

TEST_F(GigEMute, CamerasThatAnswerAgainAreNoLongerMute) {
    std::atomic<bool> answers{false};
    const HostileDevice mute = MakeMute([&](HostileDevice& device, const Request& request) {
        if (!answers) {
            return;
        }
        const std::uint32_t value = request.Address() == 0x24 ? request.to : 0;
        device.AnswerFrom(request, request.to, 3956, HostileDevice::ReadAck(request, value));
    });
    StartPatiently();
    ASSERT_EQ(CountMuteInDiagnosis(), NumMuteCameras);
    answers = true;
    const auto deadline = Clock::now() + 20s;
    while (CountMuteInDiagnosis() > 0 && Clock::now() < deadline) {
        EXPECT_EQ(ListOfDriver(), HAL_OK);
    }
    EXPECT_EQ(CountMuteInDiagnosis(), 0u);
    EXPECT_EQ(ListOfDriver(), HAL_OK);
    for (const Platform::GigE::ListedCamera& camera : m_listed) {
        EXPECT_EQ(camera.readings.controlStatus, HAL_OK);
        EXPECT_EQ(camera.readings.control.state, Platform::ControlState::Free);
    }
}

}  // namespace
}  // namespace Nimbrel2::Testing
