// SPDX-License-Identifier: Apache-2.0
// Somebody on the wire who answers every broadcast twenty thousand times a second, in the names of cameras that exist
// and of others.
#include <array>

#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::Gvcp::MessageId;
using Request = HostileDevice::Request;

constexpr std::uint32_t NumCameras = 16;
constexpr std::uint64_t PerSecond = 20000;
constexpr std::uint64_t AllForged = 30 * PerSecond;

enum class User : std::uint8_t { Root, Nobody };

/// 16 cameras at 10.0.1.1 and above, and somebody at 10.0.200.1 who sees every broadcast.
class GigEFlood : public GigEWireTest, public ::testing::WithParamInterface<User> {
protected:
    GigEFlood() {
        m_host.Ip("addr flush dev h0");
        m_host.Ip("addr add 10.0.0.1/16 dev h0");
        ConnectToo(m_elsewhere);
        m_elsewhere.Ip("addr add 10.0.200.1/16 dev e0");
        for (std::uint32_t i = 0; i < NumCameras; ++i) {
            auto options = CameraOptions(Platform::FormatIp(CameraIp(i)), 1 + i);
            options.interfaceName = "br0";
            options.subnetMask = 0xFFFF0000;
            AddCamera(options);
        }
    }

    static std::uint32_t CameraIp(std::uint64_t i) { return Ip("10.0.1.1") + static_cast<std::uint32_t>(i); }

    /// The i-th forged answer to a broadcast: of every kind in turn, each from the address that it names.
    static void Forge(HostileDevice& device, const Request& request, std::uint64_t i) {
        const std::uint64_t which = i / 5;
        const auto number = static_cast<std::uint32_t>(which);
        const std::uint64_t camera = which % NumCameras;
        const std::uint64_t realMac = 0x020000000001 + camera;
        const std::uint64_t inventedMac = 0x066600000000 + which;
        const std::uint32_t inventedIp = Ip("10.0.2.0") + number * 7919 % 50000;
        GvcpDiscoveryRecord record = HostileDevice::Record(inventedMac, inventedIp);
        if (i % 5 == 1) {
            record = HostileDevice::Record(inventedMac, Ip("172.16.0.1") + number % 50000);
        }
        if (i % 5 == 2) {
            record = HostileDevice::Record(realMac, inventedIp);
        }
        if (i % 5 == 3) {
            record = HostileDevice::Record(realMac, CameraIp(camera));
            record.subnetMask = 0xFFFFFFFC;  // as if it could not be used
        }
        if (i % 5 == 4) {
            record = HostileDevice::Record(inventedMac, CameraIp(camera));
        }
        device.AnswerFrom(request, record.ipAddress, 3956,
                          Platform::Gvcp::EncodeDiscoveryAck(request.header.requestId, record).GetBytes());
    }

    void StartAs(User user) {
        if (user == User::Root) {
            Start({});
        } else {
            ASSERT_EQ(StartAfter(DropCapabilities), HAL_OK);
        }
    }

    NetworkNamespace m_elsewhere;
};

TEST_P(GigEFlood, OfForgedAnswersHidesNoCameraAndInventsNone) {
    std::mutex mutex;
    std::optional<Request> last;
    std::atomic<std::uint64_t> sent{0};
    std::atomic<bool> begun{false};
    HostileDevice attacker(m_elsewhere, Ip("10.0.200.1"), [&](HostileDevice& device, const Request& request) {
        if (!request.Is(MessageId::DiscoveryCmd) || request.to != 0xFFFFFFFF) {
            return;
        }
        {
            const std::lock_guard lock(mutex);
            last = request;
        }
        if (begun.exchange(true)) {
            return;
        }
        device.InBackground([&] {
            const auto start = Clock::now();
            while (!device.IsStopping() && sent < AllForged) {
                const std::uint64_t due =
                    std::min(AllForged, static_cast<std::uint64_t>(Since(start).count()) * PerSecond / 1000);
                Request now;
                {
                    const std::lock_guard lock(mutex);
                    now = *last;
                }
                // Some at a time, so that what is answered stays the last broadcast.
                for (int i = 0; i < 1000 && sent < due; ++i) {
                    Forge(device, now, sent++);
                }
                device.Pause(1ms);
            }
        });
    });
    StartAs(GetParam());
    const auto first = Clock::now();
    const auto names = ListNames();
    EXPECT_EQ(names.size(), NumCameras) << "the first listing";
    EXPECT_LT(Since(first), m_window + 3s);
    const auto before = m_sink.GetCounts();
    const auto cameras = List();
    int listings = 0;
    while (sent < AllForged) {
        const auto start = Clock::now();
        ASSERT_EQ(ListNames(), names);
        EXPECT_LT(Since(start), 3s);
        for (const auto& camera : cameras) {
            std::uint32_t value = 0;
            EXPECT_EQ(camera->ReadRegister(0xC, &value), HAL_OK);
        }
        ++listings;
    }
    EXPECT_GT(listings, 30);
    Platform::GigEDiagnosis diagnosis;
    EXPECT_EQ(m_bus->Diagnose(false, &diagnosis), HAL_OK);
    EXPECT_GT(diagnosis.cameras.size(), 1000u) << "they were heard";
    EXPECT_EQ(m_sink.GetCounts(), before);
}

INSTANTIATE_TEST_SUITE_P(Users, GigEFlood, ::testing::Values(User::Root, User::Nobody), [](const auto& user) {
    return std::string(user.param == User::Root ? "AgainstRoot" : "AgainstNobody");
});

}  // namespace
}  // namespace Nimbrel2::Testing
