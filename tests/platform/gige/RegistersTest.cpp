// SPDX-License-Identifier: Apache-2.0
// Registers by themselves, on cameras that answer as the test wants: what the rest of the driver would do is what the
// test says. In a network namespace of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "platform/linux/gige/Registers.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::ControlState;
using Platform::GigE::CameraKey;
using Platform::GigE::CameraPlace;
using Platform::GigE::ChannelRequest;
using Platform::GigE::ReadingPlan;
using Platform::GigE::RegisterNeeds;
using Platform::GigE::Registers;
using Platform::GigE::SocketOptions;
using Platform::GigE::UdpSocket;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Request = HostileDevice::Request;

const ReadingPlan TestListing{true, 0x24};

/// Cameras 127.0.0.2, 127.0.0.3, ... that are one device.
class GigERegisters : public ::testing::Test {
protected:
    GigERegisters()
        : m_stop(eventfd(0, EFD_NONBLOCK)),
          m_device(m_network, Ip("127.0.0.1"), [this](HostileDevice& device, const Request& request) {
              const std::lock_guard lock(m_mutex);
              if (m_answer) {
                  m_answer(device, request);
              }
          }) {
        m_answer = [](HostileDevice& device, const Request& request) { Behave(device, request); };
        m_registers = std::make_unique<Registers>(
            m_timings,
            RegisterNeeds{[this](const CameraKey& key) { return Find(key); },
                          [this](std::vector<ChannelRequest>& requests) { Open(requests); },
                          [this](const std::vector<CameraKey>& keys) { m_suspected += static_cast<int>(keys.size()); },
                          [this](const CameraKey&, Platform::TimePoint) { return m_isThere.load(); }});
        m_registers->Start(m_stop.Get());
    }

    static CameraKey Key(std::uint64_t number) { return {number, 0, {}}; }
    CameraPlace Place(std::uint64_t number) const {
        return {Key(number), 1, Ip("127.0.0.0") + static_cast<std::uint32_t>(number), m_version.load(), false};
    }
    std::vector<CameraPlace> Places(std::uint64_t count) const {
        std::vector<CameraPlace> places;
        for (std::uint64_t i = 0; i < count; ++i) {
            places.push_back(Place(2 + i));
        }
        return places;
    }

    std::optional<CameraPlace> Find(const CameraKey& key) const {
        if (key.mac < 2 || key.mac > 100) {
            return std::nullopt;
        }
        return Place(key.mac);
    }

    void Open(std::vector<ChannelRequest>& requests) {
        m_network.Run([&] {
            for (ChannelRequest& request : requests) {
                ++m_opened;
                m_preferred = request.preferredPort;
                if (m_refusal != 0) {
                    request.error = m_refusal;
                    continue;
                }
                Platform::NetworkInterface loopback;
                loopback.index = 1;
                loopback.name = "lo";
                loopback.loopback = true;
                SocketOptions options;
                options.peer = request.place.ip;
                options.preferredPort = request.preferredPort;
                std::string where;
                request.error = UdpSocket::Open(loopback, options, &request.socket, &where);
            }
        });
    }

    /// From now on the device does this.
    void Use(std::function<void(HostileDevice&, const Request&)> answer) {
        const std::lock_guard lock(m_mutex);
        m_answer = std::move(answer);
    }

    static void Say(HostileDevice& device, const Request& request, const HostileDevice::Bytes& bytes) {
        device.AnswerFrom(request, request.to, 3956, bytes);
    }
    /// A free camera whose registers have their addresses as values, but for 0x24.
    static void Behave(HostileDevice& device, const Request& request) {
        const std::uint32_t address = request.Address();
        const std::uint32_t value = address == 0xA00 ? 0 : address == 0x24 ? request.to : address;
        Say(device, request, HostileDevice::ReadAck(request, value));
    }
    static bool IsFor(const Request& request, std::uint64_t number) {
        return request.to == Ip("127.0.0.0") + static_cast<std::uint32_t>(number);
    }
    int CountRequests(std::uint64_t number) const {
        const auto requests = m_device.GetRequests();
        return static_cast<int>(std::count_if(requests.begin(), requests.end(),
                                              [&](const Request& request) { return IsFor(request, number); }));
    }

    Platform::GigE::Timings m_timings;
    NetworkNamespace m_network;
    Platform::FileDescriptor m_stop;
    std::atomic<std::uint32_t> m_version{1};
    std::atomic<bool> m_isThere{true};
    std::atomic<int> m_suspected{0};
    std::atomic<int> m_opened{0};
    std::atomic<std::uint16_t> m_preferred{0};
    std::atomic<int> m_refusal{0};
    std::mutex m_mutex;
    std::function<void(HostileDevice&, const Request&)> m_answer;
    HostileDevice m_device;
    std::unique_ptr<Registers> m_registers;
};

TEST_F(GigERegisters, AreReadOverOneSocketThatIsKept) {
    std::uint32_t value = 0;
    for (std::uint32_t address = 0x100; address < 0x200; address += 4) {
        ASSERT_EQ(m_registers->Read(Key(2), address, &value), HAL_OK);
        ASSERT_EQ(value, address);
    }
    EXPECT_EQ(m_opened, 1);
    std::set<std::uint16_t> ports;
    for (const Request& request : m_device.GetRequests()) {
        ports.insert(request.fromPort);
    }
    EXPECT_EQ(ports.size(), 1u);
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    EXPECT_EQ(m_registers->GetLocalEnd(Key(2), &ip, &port), HAL_OK);
    EXPECT_EQ(ports.count(port), 1u);
    EXPECT_EQ(ip, Ip("127.0.0.1"));
    ASSERT_EQ(m_registers->Read(Key(3), 0x100, &value), HAL_OK);
    EXPECT_EQ(m_opened, 2) << "each camera has its own";
}

TEST_F(GigERegisters, AreReadFromTheSamePortAfterTheCameraHasMoved) {
    std::uint32_t value = 0;
    ASSERT_EQ(m_registers->Read(Key(2), 0x100, &value), HAL_OK);
    std::uint32_t ip = 0;
    std::uint16_t before = 0;
    ASSERT_EQ(m_registers->GetLocalEnd(Key(2), &ip, &before), HAL_OK);
    m_version = 2;
    ASSERT_EQ(m_registers->Read(Key(2), 0x100, &value), HAL_OK);
    EXPECT_EQ(m_opened, 2);
    EXPECT_EQ(m_preferred, before);
    std::uint16_t after = 0;
    ASSERT_EQ(m_registers->GetLocalEnd(Key(2), &ip, &after), HAL_OK);
    EXPECT_EQ(after, before) << "whoever holds control is known by it";
}

TEST_F(GigERegisters, OfACameraThatIsNotListedAreGone) {
    std::uint32_t value = 0;
    EXPECT_EQ(m_registers->Read(Key(200), 0x100, &value), HAL_GONE);
    EXPECT_EQ(m_opened, 0);
}

TEST_F(GigERegisters, NameThePortsThatAreMissing) {
    m_refusal = EADDRINUSE;
    std::uint32_t value = 0;
    EXPECT_EQ(m_registers->Read(Key(2), 0x100, &value), HAL_OUT_OF_MEMORY);
    EXPECT_EQ(m_registers->ReadAll(Places(3), TestListing).at(Key(3)).controlStatus, HAL_OUT_OF_MEMORY);
    EXPECT_THAT(m_registers->GetShortOfPorts(), ElementsAre(std::pair(1, 3u)));
    m_refusal = 0;
    EXPECT_EQ(m_registers->Read(Key(2), 0x100, &value), HAL_OK);
    m_registers->ReadAll(Places(3), TestListing);
    EXPECT_THAT(m_registers->GetShortOfPorts(), IsEmpty());
}

TEST_F(GigERegisters, OfAllCamerasAreReadAtOnce) {
    // None is answered before all have been asked.
    Use([waiting = std::vector<Request>()](HostileDevice& device, const Request& request) mutable {
        waiting.push_back(request);
        if (waiting.size() < 16) {
            return;
        }
        for (const Request& asked : waiting) {
            Behave(device, asked);
        }
        waiting.clear();
    });
    const auto readings = m_registers->ReadAll(Places(16), TestListing);
    ASSERT_EQ(readings.size(), 16u);
    for (const auto& [key, reading] : readings) {
        EXPECT_FALSE(reading.skipped);
        EXPECT_EQ(reading.controlStatus, HAL_OK);
        EXPECT_EQ(reading.control.state, ControlState::Free);
        EXPECT_EQ(reading.valueStatus, HAL_OK);
        EXPECT_EQ(reading.value, Place(key.mac).ip);
    }
}

TEST_F(GigERegisters, SayOfACameraThatIsHeldWhetherItDoesNotNameItsHolderOrWasNotHeard) {
    // 127.0.0.2 has no register that names it, 127.0.0.3 falls silent when it is asked, 127.0.0.4 names it.
    Use([](HostileDevice& device, const Request& request) {
        const std::uint32_t address = request.Address();
        if (address == 0xA00) {
            Say(device, request, HostileDevice::ReadAck(request, 2));
        } else if (IsFor(request, 2)) {
            const auto refusal =
                Platform::Gvcp::EncodeErrorAck(Platform::Gvcp::MessageId::ReadRegAck, request.header.requestId,
                                               Platform::Gvcp::Status::InvalidAddress);
            Say(device, request, {refusal.GetBytes().begin(), refusal.GetBytes().end()});
        } else if (IsFor(request, 4)) {
            Say(device, request, HostileDevice::ReadAck(request, address == 0xA04 ? 5555 : Ip("127.0.0.9")));
        }
    });
    auto readings = m_registers->ReadAll(Places(3), {true, 0});
    for (const std::uint64_t number : {2, 3, 4}) {
        EXPECT_EQ(readings.at(Key(number)).control.state, ControlState::Controlled) << number;
        EXPECT_EQ(readings.at(Key(number)).control.ownerIp, number == 4 ? Ip("127.0.0.9") : 0) << number;
        EXPECT_EQ(readings.at(Key(number)).control.status, number == 3 ? HAL_TIMED_OUT : HAL_OK) << number;
    }
    Platform::ControlInfo control;
    EXPECT_EQ(m_registers->GetControl(Key(3), &control), HAL_OK);
    EXPECT_EQ(control.state, ControlState::Controlled);
    EXPECT_EQ(control.status, HAL_TIMED_OUT);
    EXPECT_EQ(m_registers->GetControl(Key(3), &control), HAL_TIMED_OUT) << "it is left in peace for a second";
    EXPECT_EQ(control.state, ControlState::Unknown);
    EXPECT_EQ(control.status, HAL_TIMED_OUT);
}

TEST_F(GigERegisters, OfAMuteCameraAreWaitedForOnceAndThenOnlyAsked) {
    Use([](HostileDevice& device, const Request& request) {
        if (!IsFor(request, 3)) {
            Behave(device, request);
        }
    });
    const auto first = m_registers->ReadAll(Places(4), TestListing);
    EXPECT_EQ(first.at(Key(3)).controlStatus, HAL_TIMED_OUT);
    EXPECT_EQ(first.at(Key(4)).controlStatus, HAL_OK);
    EXPECT_TRUE(m_registers->IsMute(Key(3)));
    EXPECT_FALSE(m_registers->IsMute(Key(4)));
    EXPECT_EQ(m_suspected, 1);
    // Now waiting for it would never end.
    m_timings.muteWait = m_timings.verifyWait = m_timings.suspectAfter = 24h;
    const int asked = CountRequests(3);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(m_registers->ReadAll(Places(4), TestListing).at(Key(3)).controlStatus, HAL_TIMED_OUT);
    }
    EXPECT_TRUE(m_device.WaitFor([&](const Request&) { return true; }, 1s));
    const auto deadline = Clock::now() + 10s;
    while (CountRequests(3) < asked + 10 && Clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(CountRequests(3), asked + 10) << "it may have begun to answer";
}

TEST_F(GigERegisters, OfAMuteCameraAreReadAgainOnceItAnswers) {
    Use({});
    m_registers->ReadAll(Places(1), TestListing);
    ASSERT_TRUE(m_registers->IsMute(Key(2)));
    Use([](HostileDevice& device, const Request& request) { Behave(device, request); });
    const auto deadline = Clock::now() + 10s;
    while (m_registers->IsMute(Key(2)) && Clock::now() < deadline) {
        m_registers->ReadAll(Places(1), TestListing);
    }
    EXPECT_FALSE(m_registers->IsMute(Key(2)));
    EXPECT_EQ(m_registers->ReadAll(Places(1), TestListing).at(Key(2)).valueStatus, HAL_OK);
}

TEST_F(GigERegisters, OfACameraThatIsPendingForEverAreTreatedAsThoseOfAMuteOne) {
    Use([](HostileDevice& device, const Request& request) {
        const auto pending = Platform::Gvcp::EncodePendingAck(request.header.requestId, 0xFFFF);
        Say(device, request, HostileDevice::Bytes(pending.GetData(), pending.GetData() + pending.GetSize()));
    });
    EXPECT_EQ(m_registers->ReadAll(Places(1), TestListing).at(Key(2)).controlStatus, HAL_TIMED_OUT);
    EXPECT_TRUE(m_registers->IsMute(Key(2)));
    m_timings.muteWait = m_timings.verifyWait = m_timings.suspectAfter = 24h;
    EXPECT_EQ(m_registers->ReadAll(Places(1), TestListing).at(Key(2)).controlStatus, HAL_TIMED_OUT);
}

TEST_F(GigERegisters, OfACameraThatIsAlwaysLateAreNotWaitedForEachTime) {
    // Each answer comes when the next listing has begun.
    Use([late = std::vector<Request>()](HostileDevice& device, const Request& request) mutable {
        for (const Request& asked : late) {
            Behave(device, asked);
        }
        late.assign(1, request);
    });
    m_timings.muteWait = 100ms;
    m_timings.registerTry = 24h;
    int waits = 0;
    for (int i = 0; i < 10; ++i) {
        m_registers->ReadAll(Places(1), TestListing);
        waits += m_registers->IsMute(Key(2)) ? 0 : 1;
    }
    EXPECT_TRUE(m_registers->IsMute(Key(2)));
    EXPECT_LE(waits, 1) << "a late answer is believed once";
}

TEST_F(GigERegisters, OfACameraThatIsNotThereAreNotWaitedFor) {
    Use([](HostileDevice& device, const Request& request) {
        if (!IsFor(request, 3)) {
            Behave(device, request);
        }
    });
    m_isThere = false;
    m_timings.muteWait = 24h;
    const auto readings = m_registers->ReadAll(Places(2), TestListing);
    EXPECT_EQ(readings.at(Key(2)).valueStatus, HAL_OK);
    EXPECT_EQ(readings.at(Key(3)).controlStatus, HAL_TIMED_OUT);
    EXPECT_FALSE(m_registers->IsMute(Key(3))) << "it is gone";
}

TEST_F(GigERegisters, OfACameraThatSomebodyTalksToAreNotWaitedFor) {
    std::atomic<bool> asked{false};
    Use([&](HostileDevice& device, const Request& request) {
        if (request.Address() == 0x500) {
            asked = true;
        } else {
            Behave(device, request);
        }
    });
    m_timings.registerTry = 24h;
    auto talking = std::async(std::launch::async, [this] {
        std::uint32_t value = 0;
        return m_registers->Read(Key(2), 0x500, &value);
    });
    while (!asked) {
        std::this_thread::yield();
    }
    const auto readings = m_registers->ReadAll(Places(2), TestListing);
    EXPECT_TRUE(readings.at(Key(2)).skipped);
    EXPECT_EQ(readings.at(Key(3)).valueStatus, HAL_OK);
    // And Stop ends the one that waits.
    m_registers->Stop();
    const std::uint64_t one = 1;
    ASSERT_EQ(write(m_stop.Get(), &one, sizeof one), 8);
    EXPECT_EQ(talking.get(), HAL_CLOSED);
}

TEST_F(GigERegisters, AreFreeForOthersAsSoonAsTheyHaveBeenRead) {
    // The listing goes on waiting for camera 3; camera 2 can be talked to meanwhile.
    Use([](HostileDevice& device, const Request& request) {
        if (!IsFor(request, 3)) {
            Behave(device, request);
        }
    });
    m_timings.muteWait = 24h;
    auto listing = std::async(std::launch::async, [this] { return m_registers->ReadAll(Places(2), TestListing); });
    ASSERT_TRUE(
        m_device.WaitFor([](const Request& request) { return IsFor(request, 2) && request.Address() == 0x24; }, 10s));
    std::uint32_t value = 0;
    EXPECT_EQ(m_registers->Read(Key(2), 0x500, &value), HAL_OK);
    m_registers->Stop();
    const std::uint64_t one = 1;
    ASSERT_EQ(write(m_stop.Get(), &one, sizeof one), 8);
    EXPECT_EQ(listing.get().at(Key(2)).valueStatus, HAL_OK);
}

TEST_F(GigERegisters, AreNotForcedByAnswersOfOthers) {
    Use([](HostileDevice& device, const Request& request) {
        device.AnswerFrom(request, Ip("127.0.0.99"), 3956, HostileDevice::ReadAck(request, 0xBAD));
        device.AnswerFrom(request, request.to, 3957, HostileDevice::ReadAck(request, 0xBAD));
        Say(device, request, HostileDevice::ReadAck(request, 0x600D));
    });
    std::uint32_t value = 0;
    ASSERT_EQ(m_registers->Read(Key(2), 0x100, &value), HAL_OK);
    EXPECT_EQ(value, 0x600Du);
}

TEST_F(GigERegisters, OfManyCamerasAreReadByManyThreadsWithoutOneRetry) {
    constexpr int Reads = 2000;
    std::vector<std::thread> threads;
    for (std::uint64_t number = 2; number < 10; ++number) {
        threads.emplace_back([this, number] {
            std::uint32_t value = 0;
            for (int i = 0; i < Reads; ++i) {
                EXPECT_EQ(m_registers->Read(Key(number), 0x100, &value), HAL_OK);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(m_device.GetRequests().size(), 8u * Reads) << "each request was answered the first time";
}

}  // namespace
}  // namespace Nimbrel2::Testing
