// SPDX-License-Identifier: Apache-2.0
// A network that answers wrongly, too much, and to what it was not asked.
#include <thread>

#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::Gvcp::MessageId;
using ::testing::ElementsAre;
using Bytes = HostileDevice::Bytes;
using Request = HostileDevice::Request;

const std::uint32_t DeviceIp = Ip("192.168.77.100");
constexpr std::uint64_t DeviceMac = 0x0200000066AA;

/// A simulated camera at 192.168.77.102 that behaves, and a device at 192.168.77.100 that does not.
class GigEHostile : public GigEWireTest {
protected:
    GigEHostile() {
        ConnectToo(m_elsewhere);
        m_elsewhere.Ip("addr add 192.168.77.100/24 dev e0");
        auto options = CameraOptions("192.168.77.102", 2);
        options.interfaceName = "br0";
        AddCamera(options);
    }

    /// For a variable of the test, so that the device ends before what its function refers to.
    [[nodiscard]] HostileDevice Attack(std::function<void(HostileDevice&, const Request&)> function) {
        return HostileDevice(m_elsewhere, DeviceIp, std::move(function));
    }

    NetworkNamespace m_elsewhere;
};

/// Answers DISCOVERY as a camera does; true when it was one.
bool BehaveInDiscovery(HostileDevice& device, const Request& request) {
    if (!request.Is(MessageId::DiscoveryCmd)) {
        return false;
    }
    device.Answer(request, HostileDevice::DiscoveryAck(request, DeviceMac, DeviceIp));
    return true;
}

/// Answers DISCOVERY, and what a listing reads; true when it was one of these.
bool BehaveInListing(HostileDevice& device, const Request& request) {
    if (BehaveInDiscovery(device, request)) {
        return true;
    }
    if (!request.Is(MessageId::ReadRegCmd)) {
        return false;
    }
    if (request.Address() != 0xA00 && request.Address() != 0x24) {
        return false;
    }
    device.Answer(request, HostileDevice::ReadAck(request, request.Address() == 0x24 ? DeviceIp : 0));
    return true;
}

/// How often the device was asked for a register.
auto CountReads(const HostileDevice& device, std::uint32_t address) {
    const auto requests = device.GetRequests();
    return std::count_if(requests.begin(), requests.end(), [address](const Request& request) {
        return request.Is(MessageId::ReadRegCmd) && request.Address() == address;
    });
}

/// The last broadcast that the device has heard, or else that request.
Request LastBroadcast(const HostileDevice& device, Request last) {
    for (const Request& request : device.GetRequests()) {
        if (request.Is(MessageId::DiscoveryCmd) && request.to == 0xFFFFFFFF) {
            last = request;
        }
    }
    return last;
}

TEST_F(GigEHostile, DeviceThatBehavesIsListed) {
    HostileDevice attacker =
        Attack([](HostileDevice& device, const Request& request) { BehaveInDiscovery(device, request); });
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102", "666@192.168.77.100"));
}

struct WrongAnswer {
    const char* name;
    std::function<void(HostileDevice&, const Request&, Bytes)> send;  ///< gets the right answer
};

std::ostream& operator<<(std::ostream& out, const WrongAnswer& row) { return out << row.name; }

Bytes With(Bytes bytes, std::size_t at, std::uint8_t value) {
    bytes[at] = value;
    return bytes;
}

/// Answers that are no answer, whatever was asked.
std::vector<WrongAnswer> WrongAnswers() {
    return {
        {"IdOneMore",
         [](auto& device, auto& request, const Bytes& right) {
             device.Answer(request, With(right, 7, static_cast<std::uint8_t>(right[7] + 1)));
         }},
        {"IdZero", [](auto& device, auto& request,
                      const Bytes& right) { device.Answer(request, With(With(right, 6, 0), 7, 0)); }},
        {"PortOneMore",
         [](auto& device, auto& request, const Bytes& right) { device.AnswerFrom(request, DeviceIp, 3957, right); }},
        {"AcknowledgeOfAnotherCommand",
         [](auto& device, auto& request, const Bytes& right) { device.Answer(request, With(right, 3, 0x87)); }},
        {"UnknownAcknowledge",
         [](auto& device, auto& request, const Bytes& right) { device.Answer(request, With(right, 3, 0x77)); }},
        {"Command",
         [](auto& device, auto& request, const Bytes& right) { device.Answer(request, With(right, 0, 0x42)); }},
        {"TheRequestItself", [](auto& device, auto& request, const Bytes&) { device.Answer(request, request.bytes); }},
        {"LengthOneMore",
         [](auto& device, auto& request, const Bytes& right) {
             device.Answer(request, With(right, 5, static_cast<std::uint8_t>(right[5] + 1)));
         }},
        {"OneByteMore",
         [](auto& device, auto& request, Bytes right) {
             right.push_back(0);
             device.Answer(request, right);
         }},
        {"CutAtEveryByte",
         [](auto& device, auto& request, const Bytes& right) {
             for (std::size_t size = 0; size < right.size(); ++size) {
                 device.Answer(request, {right.data(), size});
             }
         }},
        {"CutAtEveryWordWithTheLengthRight",
         [](auto& device, auto& request, const Bytes& right) {
             for (std::size_t size = 8; size < right.size(); size += 4) {
                 Bytes cut(right.begin(), right.begin() + static_cast<std::ptrdiff_t>(size));
                 cut[4] = 0;
                 cut[5] = static_cast<std::uint8_t>(size - 8);
                 device.Answer(request, cut);
             }
         }},
        {"AsLongAsUdpAllows",
         [](auto& device, auto& request, Bytes right) {
             for (const std::size_t size : {549u, 577u, 1473u, 2048u, 9000u, 65507u}) {
                 right.resize(size);
                 device.Answer(request, right);
             }
         }},
        {"Empty", [](auto& device, auto& request, const Bytes&) { device.Answer(request, {}); }},
    };
}

class GigEWrongAnswer : public GigEHostile, public ::testing::WithParamInterface<WrongAnswer> {};

TEST_P(GigEWrongAnswer, ToADiscoveryInventsNoCameraAndLosesNone) {
    HostileDevice attacker = Attack([](HostileDevice& device, const Request& request) {
        if (!request.Is(MessageId::DiscoveryCmd)) {
            return;
        }
        GetParam().send(device, request, HostileDevice::DiscoveryAck(request, DeviceMac, DeviceIp));
    });
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_THAT(DiscoverNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
}

TEST_P(GigEWrongAnswer, ToARegisterReadIsNotTakenForTheRightOne) {
    HostileDevice attacker = Attack([](HostileDevice& device, const Request& request) {
        if (BehaveInDiscovery(device, request) || !request.Is(MessageId::ReadRegCmd)) {
            return;
        }
        GetParam().send(device, request, HostileDevice::ReadAck(request, 0xBAD));
        device.Answer(request, HostileDevice::ReadAck(request, 0x600D));
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[1]->ReadRegister(0x934, &value), HAL_OK);
    EXPECT_EQ(value, 0x600Du);
}

TEST_P(GigEWrongAnswer, AloneIsNoAnswerAndEndsInTime) {
    HostileDevice attacker = Attack([](HostileDevice& device, const Request& request) {
        if (BehaveInDiscovery(device, request) || !request.Is(MessageId::ReadRegCmd)) {
            return;
        }
        GetParam().send(device, request, HostileDevice::ReadAck(request, 0xBAD));
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    const auto start = Clock::now();
    const std::uint32_t status = cameras[1]->ReadRegister(0x934, &value);
    EXPECT_TRUE(status == HAL_TIMED_OUT || status == HAL_BAD_ANSWER) << status;
    EXPECT_GE(Since(start), 590ms);
    EXPECT_LT(Since(start), 3s);
    EXPECT_EQ(cameras[1]->ReadRegister(0x24, &value), HAL_OK) << "the table knows the address";
    EXPECT_EQ(value, DeviceIp);
    EXPECT_EQ(ListNames().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Rows, GigEWrongAnswer, ::testing::ValuesIn(WrongAnswers()),
                         [](const auto& row) { return row.param.name; });

TEST_F(GigEHostile, AnswersOfAnotherAddressAreNotTheCameras) {
    HostileDevice attacker = Attack([](HostileDevice& device, const Request& request) {
        if (request.Is(MessageId::DiscoveryCmd) && request.to == 0xFFFFFFFF) {
            BehaveInDiscovery(device, request);
        }
        // Asked alone, it answers from elsewhere: then it is not what it says it is.
        if (request.Is(MessageId::DiscoveryCmd) && request.to != 0xFFFFFFFF) {
            device.AnswerFrom(request, Ip("192.168.77.55"), 3956,
                              HostileDevice::DiscoveryAck(request, DeviceMac, DeviceIp));
        }
    });
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_TRUE(attacker.WaitFor([](const Request& request) { return request.to == DeviceIp; }, 1s));
}

TEST_F(GigEHostile, RegisterAnswersOfAnotherAddressDoNotCount) {
    HostileDevice attacker = Attack([](HostileDevice& device, const Request& request) {
        if (BehaveInDiscovery(device, request)) {
            return;
        }
        device.AnswerFrom(request, Ip("192.168.77.55"), 3956, HostileDevice::ReadAck(request, 0xBAD));
        device.Answer(request, HostileDevice::ReadAck(request, 0x600D));
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[1]->ReadRegister(0x934, &value), HAL_OK);
    EXPECT_EQ(value, 0x600Du);
}

TEST_F(GigEHostile, AddressesOfGroupsAreNeverAsked) {
    const std::vector<std::uint32_t> groups{Ip("192.168.77.255"), Ip("192.168.77.0"), Ip("224.0.0.1"),
                                            Ip("127.0.0.1"),      Ip("0.0.0.0"),      0xFFFFFFFF};
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        for (std::size_t i = 0; i < groups.size(); ++i) {
            device.Answer(request, HostileDevice::DiscoveryAck(request, DeviceMac + i, groups[i]));
        }
    });
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_EQ(DiscoverNames().size(), 1 + groups.size()) << "seen is not reachable";
    for (const Request& request : attacker.GetRequests()) {
        EXPECT_EQ(request.to, 0xFFFFFFFF);
    }
}

TEST_F(GigEHostile, RetriesKeepTheirId) {
    std::atomic<int> dropped{0};
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        if (BehaveInListing(device, request) || dropped++ < 2) {
            return;
        }
        device.Answer(request, HostileDevice::ReadAck(request, 0x600D));
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    const auto start = Clock::now();
    EXPECT_EQ(cameras[1]->ReadRegister(0x934, &value), HAL_OK);
    EXPECT_GE(Since(start), 395ms);
    std::vector<std::uint16_t> ids;
    for (const Request& request : attacker.GetRequests()) {
        if (request.Is(MessageId::ReadRegCmd) && request.Address() == 0x934) {
            ids.push_back(request.header.requestId);
        }
    }
    ASSERT_EQ(ids.size(), 3u);
    EXPECT_THAT(ids, ::testing::Each(ids[0]));
    EXPECT_NE(ids[0], 0);
}

TEST_F(GigEHostile, LateAndDuplicateAnswersAreDropped) {
    std::vector<Request> unanswered;
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        if (BehaveInListing(device, request)) {
            return;
        }
        if (request.Address() == 0x100) {
            unanswered.push_back(request);
            return;
        }
        // First what is late, with another value, then the answer, twice. A repeat of this very request is not late.
        for (const Request& late : unanswered) {
            if (late.header.requestId != request.header.requestId) {
                device.Answer(request, HostileDevice::ReadAck(late, 0xBAD));
            }
        }
        device.Answer(request, HostileDevice::ReadAck(request, request.Address()));
        device.Answer(request, HostileDevice::ReadAck(request, 0xBAD));
        unanswered.push_back(request);
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[1]->ReadRegister(0x100, &value), HAL_TIMED_OUT);
    std::this_thread::sleep_for(1s);  // the silence after a time-out, which is its contract
    for (std::uint32_t address = 0x200; address < 0x300; address += 4) {
        ASSERT_EQ(cameras[1]->ReadRegister(address, &value), HAL_OK);
        ASSERT_EQ(value, address);
    }
}

TEST_F(GigEHostile, ACameraThatTimedOutIsLeftInPeace) {
    std::atomic<bool> silent{true};
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        if (BehaveInListing(device, request) || silent) {
            return;
        }
        device.Answer(request, HostileDevice::ReadAck(request, 0x600D));
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    const auto countReads = [&] { return CountReads(attacker, 0x934); };
    std::uint32_t value = 0;
    const auto asked = Clock::now();
    EXPECT_EQ(cameras[1]->ReadRegister(0x934, &value), HAL_TIMED_OUT);
    const auto timedOut = Clock::now();
    silent = false;
    EXPECT_EQ(countReads(), 3);
    // Three tries of 200 ms, and a second of peace.
    while (Since(asked) < 1500ms) {
        const std::uint32_t status = cameras[1]->ReadRegister(0x934, &value);
        const auto reads = countReads();
        if (Since(asked) >= 1600ms) {
            break;  // this computer is too slow to tell
        }
        EXPECT_EQ(status, HAL_TIMED_OUT);
        EXPECT_EQ(reads, 3);
        std::this_thread::sleep_for(50ms);
    }
    while (Since(timedOut) < 1050ms) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(cameras[1]->ReadRegister(0x934, &value), HAL_OK);
}

TEST_F(GigEHostile, PendingAcknowledgesAreHonouredUpToASecond) {
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        if (BehaveInListing(device, request)) {
            return;
        }
        const auto pending = Platform::Gvcp::EncodePendingAck(request.header.requestId, 800);
        device.Answer(request, pending.GetBytes());
        if (request.Address() != 0x934) {
            return;
        }
        device.InBackground([&device, request] {
            device.Pause(300ms);  // longer than one try
            device.Answer(request, HostileDevice::ReadAck(request, 0x600D));
        });
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[1]->ReadRegister(0x934, &value), HAL_OK);
    EXPECT_EQ(value, 0x600Du);
    EXPECT_EQ(CountReads(attacker, 0x934), 1) << "a camera that is at work is not asked again";
    const auto start = Clock::now();
    EXPECT_EQ(cameras[1]->ReadRegister(0x938, &value), HAL_TIMED_OUT);
    EXPECT_GE(Since(start), 790ms);
}

TEST_F(GigEHostile, APendingAcknowledgeThatAsksForNoTimeTakesNone) {
    HostileDevice attacker = Attack([](HostileDevice& device, const Request& request) {
        if (BehaveInListing(device, request)) {
            return;
        }
        device.Answer(request, Platform::Gvcp::EncodePendingAck(request.header.requestId, 0).GetBytes());
        device.Pause(20ms);
        device.Answer(request, HostileDevice::ReadAck(request, 0x600D));
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[1]->ReadRegister(0x934, &value), HAL_OK);
    EXPECT_EQ(value, 0x600Du);
}

TEST_F(GigEHostile, EndlessPendingAcknowledgesEnd) {
    std::atomic<bool> begun{false};
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        if (BehaveInListing(device, request) || begun.exchange(true)) {
            return;
        }
        device.InBackground([&device, request] {
            const auto pending = Platform::Gvcp::EncodePendingAck(request.header.requestId, 0xFFFF);
            while (!device.IsStopping()) {
                device.Answer(request, pending.GetBytes());
                device.Pause(1ms);
            }
        });
    });
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    const auto start = Clock::now();
    EXPECT_EQ(cameras[1]->ReadRegister(0x938, &value), HAL_TIMED_OUT);
    EXPECT_GE(Since(start), 990ms);
    EXPECT_LT(Since(start), 5s) << "the 65 s that are asked for do not count";
}

TEST_F(GigEHostile, EverNewCamerasDoNotDrawTheFirstListingOut) {
    std::atomic<bool> begun{false};
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        if (!request.Is(MessageId::DiscoveryCmd) || begun.exchange(true)) {
            return;
        }
        device.InBackground([&device, request] {
            // Slowly enough that none of them is too much, and always one that has not been asked to the end.
            for (std::uint32_t i = 0; !device.IsStopping(); ++i) {
                const Request now = LastBroadcast(device, request);
                const auto ip = Ip("192.168.77.0") + 110 + i % 100;
                device.Answer(now, HostileDevice::DiscoveryAck(now, 0x066600000000 + i, ip));
                device.Pause(20ms);
            }
        });
    });
    m_window = 2s;
    Start({});
    const auto start = Clock::now();
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_LT(Since(start), 3900ms) << "3 s are the limit, and with 3 s more after the window it would be 5 s";
}

TEST_F(GigEHostile, FloodsLoseNoCameraAndHoldNothingUp) {
    std::atomic<bool> begun{false};
    std::atomic<std::uint64_t> sent{0};
    HostileDevice attacker = Attack([&](HostileDevice& device, const Request& request) {
        if (!request.Is(MessageId::DiscoveryCmd) || begun.exchange(true)) {
            return;
        }
        device.InBackground([&device, &sent, request] {
            Request now = request;
            for (std::uint64_t i = 0; !device.IsStopping(); ++i) {
                // The right id and ever new cameras, in the subnet and out of it; then answers to nothing.
                const auto ip =
                    static_cast<std::uint32_t>(Ip("192.168.77.0") + 1 + i % 250 + (i % 3 == 0 ? 0x10000 : 0));
                device.Answer(now, HostileDevice::DiscoveryAck(now, 0x066600000000 + i, ip));
                if (i % 8 == 0) {
                    device.Answer(now, HostileDevice::ReadAck(now, static_cast<std::uint32_t>(i)));
                }
                if (i % 1000 == 0) {
                    now = LastBroadcast(device, now);
                }
                ++sent;
            }
        });
    });
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    const auto before = m_sink.GetCounts();
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    const auto begin = Clock::now();
    int listings = 0;
    while (Since(begin) < 4s) {
        const auto start = Clock::now();
        EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
        EXPECT_LT(Since(start), 3s);
        std::uint32_t value = 0;
        EXPECT_EQ(cameras[0]->ReadRegister(0x24, &value), HAL_OK);
        EXPECT_EQ(value, Ip("192.168.77.102"));
        ++listings;
    }
    EXPECT_GT(listings, 10);
    const auto discovery = Clock::now();
    std::vector<GvcpDiscoveryRecord> records;
    EXPECT_EQ(Discover(&records), HAL_OK);
    EXPECT_LT(Since(discovery), m_window + 5s);
    EXPECT_LE(records.size(), 4200u);
    EXPECT_TRUE(std::any_of(records.begin(), records.end(),
                            [](const auto& record) { return NameOf(record) == "2@192.168.77.102"; }));
    attacker.Stop();
    EXPECT_EQ(m_sink.GetCounts(), before);
    EXPECT_GT(sent, 10000u);
    const auto end = Clock::now();
    Stop();
    EXPECT_LT(Since(end), 5s);
}

}  // namespace
}  // namespace Nimbrel2::Testing
