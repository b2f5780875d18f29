// SPDX-License-Identifier: Apache-2.0
// Simulated cameras on UDP sockets of a loopback interface of the test's own: many at a time, faults that change while
// they run, floods, and what cannot be set up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>

#include "CameraTalk.h"
#include "HostSocket.h"
#include "platform/simulated/InterfaceAddresses.h"
#include "platform/simulated/SimulatedGigENetwork.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/ProcessThreads.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

using Nimbrel2::Testing::NetworkNamespace;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t Loopback = 0x7F000001;

SimulatedCameraOptions CameraNumber(std::uint32_t number) {
    SimulatedCameraOptions options;
    options.address = 0x7F000100 + number;
    options.mac = 0x020000000000 + number;
    options.serialNumber = std::to_string(number);
    return options;
}

/// A namespace with its simulated cameras and a host's socket on its loopback interface.
class SimulatedNetwork : public ::testing::Test {
protected:
    void SetUp() override {
        space.Run([this] {
            network = std::make_unique<SimulatedGigENetwork>();
            host = std::make_unique<HostSocket>(Loopback);
        });
    }

    void TearDown() override {
        space.Run([this] { network.reset(); });
    }

    SimulatedGigENetwork::CameraId Add(const SimulatedCameraOptions& options) {
        const auto result = network->AddCamera(options);
        EXPECT_TRUE(result) << result.reason;
        return result.id;
    }

    Gvcp::Packet MakeRead(std::uint32_t address) {
        id = Gvcp::NextRequestId(id);
        return Gvcp::EncodeReadRegCommand(id, std::span(&address, 1));
    }

    /// Reads a register; none when no answer comes in time.
    std::optional<std::uint32_t> Read(std::uint32_t camera, std::uint32_t address, milliseconds timeout = seconds(10)) {
        host->Send(camera, MakeRead(address));
        const auto received = host->Receive(timeout);
        if (!received) {
            return std::nullopt;
        }
        EXPECT_EQ(received->from, (Endpoint{camera, Gvcp::Port}));
        const auto decoded = received->Decode();
        EXPECT_EQ(decoded.header.ackId, id);
        const auto* body = std::get_if<Gvcp::ReadRegAcknowledge>(&decoded.body);
        return body == nullptr ? std::nullopt : std::optional(body->values[0]);
    }

    NetworkNamespace space;
    std::unique_ptr<SimulatedGigENetwork> network;
    std::unique_ptr<HostSocket> host;
    std::uint16_t id = 0;
};

TEST_F(SimulatedNetwork, AnswersFromEachCamerasOwnAddress) {
    Add(CameraNumber(1));
    Add(CameraNumber(2));
    EXPECT_EQ(Read(0x7F000101, Register::DeviceMacAddressLow), 1u);
    EXPECT_EQ(Read(0x7F000102, Register::DeviceMacAddressLow), 2u);
}

TEST_F(SimulatedNetwork, IsServedByAThreadThatTakesNoSignalButThoseOfFaults) {
    Add(CameraNumber(1));
    const auto threads = Nimbrel2::Testing::ListThreads("gige-simulated");
    EXPECT_FALSE(threads.empty());
    EXPECT_THAT(Nimbrel2::Testing::WrongMasks(threads), IsEmpty());
}

TEST_F(SimulatedNetwork, AnswersOneBroadcastWithAllOf128Cameras) {
    for (std::uint32_t number = 1; number <= 128; ++number) {
        Add(CameraNumber(number));
    }
    for (std::uint16_t round = 1; round <= 10; ++round) {
        host->Broadcast(Gvcp::EncodeDiscoveryCommand(round, 0x11));
        std::set<std::uint32_t> serials;
        for (const Received& received : host->Receive(128)) {
            const auto decoded = received.Decode();
            ASSERT_EQ(decoded.error, Gvcp::DecodeError::None);
            EXPECT_EQ(decoded.header.ackId, round);
            const auto& record = std::get<Gvcp::DiscoveryAcknowledge>(decoded.body).record;
            EXPECT_EQ(received.from, (Endpoint{record.ipAddress, Gvcp::Port}));
            serials.insert(static_cast<std::uint32_t>(std::stoul(record.serialNumber)));
        }
        EXPECT_THAT(serials, SizeIs(128));
    }
}

TEST_F(SimulatedNetwork, ForgetsARemovedCamera) {
    const auto first = Add(CameraNumber(1));
    Add(CameraNumber(2));
    EXPECT_TRUE(network->RemoveCamera(first));
    EXPECT_FALSE(network->RemoveCamera(first));
    EXPECT_FALSE(network->Use(first, [](SimulatedGigECamera&) { FAIL(); }));
    host->Broadcast(Gvcp::EncodeDiscoveryCommand(1, 1));
    const auto received = host->Receive();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->from.address, 0x7F000102u);
    EXPECT_EQ(network->AddCamera(CameraNumber(1)).error, 0) << "its address is free again";
}

TEST_F(SimulatedNetwork, SharesItsInterfaceWithAnotherNetwork) {
    std::unique_ptr<SimulatedGigENetwork> other;
    space.Run([&] { other = std::make_unique<SimulatedGigENetwork>(); });
    Add(CameraNumber(1));
    EXPECT_TRUE(other->AddCamera(CameraNumber(2)));
    host->Broadcast(Gvcp::EncodeDiscoveryCommand(1, 1));
    EXPECT_THAT(host->Receive(2), SizeIs(2));
}

// ---- Faults while it runs ------------------------------------------------------------------------------------------

TEST_F(SimulatedNetwork, LetsACameraDieAndReturn) {
    const auto camera = Add(CameraNumber(1));
    EXPECT_TRUE(Read(0x7F000101, 0x0024));
    network->Use(camera, [](SimulatedGigECamera& model) { model.SetSilent(true); });
    host->Send(0x7F000101, MakeRead(0x0024));
    // That the command came and was ignored is seen in the camera, not by waiting for an answer that never comes.
    EXPECT_TRUE(network->WaitUntil(
        camera, [](SimulatedGigECamera& model) { return model.GetStatistics().received == 2; }, seconds(10)));
    network->Use(camera, [](SimulatedGigECamera& model) { model.SetSilent(false); });
    EXPECT_TRUE(Read(0x7F000101, 0x0024)) << "the first answer is that to the second command";
}

TEST_F(SimulatedNetwork, DelaysAnswersAndKeepsTheirOrderInTime) {
    SimulatedCameraOptions options = CameraNumber(1);
    options.faults.delayMinimum = options.faults.delayMaximum = milliseconds(100);
    Add(options);
    Add(CameraNumber(2));
    const auto start = std::chrono::steady_clock::now();
    host->Send(0x7F000101, MakeRead(0x0024));
    host->Send(0x7F000102, MakeRead(0x0024));
    const auto answers = host->Receive(2);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_THAT(answers, SizeIs(2));
    EXPECT_EQ(answers[0].from.address, 0x7F000102u);
    EXPECT_EQ(answers[1].from.address, 0x7F000101u);
    EXPECT_GE(elapsed, milliseconds(100));
}

TEST_F(SimulatedNetwork, SendsAPendingAcknowledgeFirst) {
    SimulatedCameraOptions options = CameraNumber(1);
    options.faults.pendingAnnounced = milliseconds(400);
    options.faults.pendingActual = milliseconds(50);
    Add(options);
    host->Send(0x7F000101, MakeRead(0x0024));
    const auto answers = host->Receive(2);
    ASSERT_THAT(answers, SizeIs(2));
    EXPECT_EQ(answers[0].Decode().header.id, Gvcp::MessageId::PendingAck);
    EXPECT_EQ(answers[1].Decode().header.id, Gvcp::MessageId::ReadRegAck);
}

TEST_F(SimulatedNetwork, DropsAnswersThatWaitWhenTheCameraDies) {
    SimulatedCameraOptions options = CameraNumber(1);
    options.faults.delayMinimum = options.faults.delayMaximum = milliseconds(50);
    const auto camera = Add(options);
    host->Send(0x7F000101, MakeRead(0x0024));
    EXPECT_TRUE(network->WaitUntil(
        camera, [](SimulatedGigECamera& model) { return model.GetStatistics().received == 1; }, seconds(10)));
    network->Use(camera, [](SimulatedGigECamera& model) { model.SetSilent(true); });
    EXPECT_FALSE(host->Receive(milliseconds(150)));
}

TEST_F(SimulatedNetwork, EndsControlByItself) {
    SimulatedCameraOptions options = CameraNumber(1);
    options.heartbeatTimeout = 500;
    const auto camera = Add(options);
    const Gvcp::RegisterWrite take{Register::ControlChannelPrivilege, 2};
    host->Send(0x7F000101, Gvcp::EncodeWriteRegCommand(1, std::span(&take, 1)));
    ASSERT_TRUE(host->Receive());
    const auto isHeld = [](SimulatedGigECamera& model) { return model.GetRegisters().IsControlHeld(); };
    EXPECT_TRUE(network->WaitUntil(camera, isHeld, milliseconds(0)));
    EXPECT_TRUE(network->WaitUntil(
        camera, [&](SimulatedGigECamera& model) { return !isHeld(model); }, seconds(10)));
    EXPECT_FALSE(network->WaitUntil(camera, isHeld, milliseconds(20)));
}

TEST_F(SimulatedNetwork, ShowsTheControllersPortAndAddress) {
    Add(CameraNumber(1));
    const Gvcp::RegisterWrite take{Register::ControlChannelPrivilege, 2};
    host->Send(0x7F000101, Gvcp::EncodeWriteRegCommand(0x2f, std::span(&take, 1)));
    ASSERT_TRUE(host->Receive());
    EXPECT_EQ(Read(0x7F000101, Register::PrimaryApplicationPort), host->GetPort());
    EXPECT_EQ(Read(0x7F000101, Register::PrimaryApplicationIpAddress), Loopback);
}

// ---- Hostile networks ----------------------------------------------------------------------------------------------

TEST_F(SimulatedNetwork, SurvivesAFloodOfEverySize) {
    SimulatedCameraOptions options = CameraNumber(1);
    options.faults.delayMinimum = options.faults.delayMaximum = seconds(60);
    const auto slow = Add(options);
    const auto camera = Add(CameraNumber(2));
    const std::vector<std::uint8_t> junk(65507, 0x42);
    const std::uint32_t address = 0x0024;
    for (std::size_t i = 0; i < 20000; ++i) {
        host->Send(0x7F000101, Gvcp::EncodeReadRegCommand(static_cast<std::uint16_t>(1 + i), std::span(&address, 1)));
        if (i % 100 == 0) {
            host->Send(0x7F000102, Gvcp::Bytes(junk).first(i * 65507 / 20000));
        }
    }
    EXPECT_TRUE(network->WaitUntil(
        slow, [](SimulatedGigECamera& model) { return model.GetStatistics().received > 0; }, seconds(10)));
    // The flood may still fill the camera's buffer: an application would try again, too.
    const Gvcp::Packet read = MakeRead(0x0024);
    std::optional<Received> received;
    for (int attempt = 0; attempt < 50 && !received; ++attempt) {
        host->Send(0x7F000102, read);
        received = host->Receive(milliseconds(200));
    }
    ASSERT_TRUE(received);
    EXPECT_EQ(received->Decode().header.ackId, id);
    EXPECT_TRUE(network->RemoveCamera(camera));
}

TEST_F(SimulatedNetwork, IsUsedByManyThreadsAtOnce) {
    std::vector<SimulatedGigENetwork::CameraId> cameras;
    for (std::uint32_t number = 1; number <= 8; ++number) {
        cameras.push_back(Add(CameraNumber(number)));
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (std::uint32_t number = 1; number <= 8; ++number) {
        threads.push_back(space.StartThread([&, number] {
            HostSocket socket(Loopback);
            for (std::uint16_t i = 1; i <= 200; ++i) {
                network->Use(cameras[number - 1], [](SimulatedGigECamera& model) { model.SetSilent(true); });
                network->Use(cameras[number - 1], [](SimulatedGigECamera& model) { model.SetSilent(false); });
                const std::uint32_t address = 0x000C;
                socket.Send(0x7F000100 + number, Gvcp::EncodeReadRegCommand(i, std::span(&address, 1)));
                const auto received = socket.Receive();
                if (!received || received->Decode().header.ackId != i) {
                    ++failures;
                }
            }
        }));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
}

TEST_F(SimulatedNetwork, LetsExceptionsOfItsUserOut) {
    const auto camera = Add(CameraNumber(1));
    EXPECT_THROW(network->Use(camera, [](SimulatedGigECamera&) { throw std::runtime_error("user"); }),
                 std::runtime_error);
    EXPECT_TRUE(Read(0x7F000101, 0x0024));
}

// ---- What cannot be set up -----------------------------------------------------------------------------------------

TEST_F(SimulatedNetwork, RefusesATakenAddress) {
    Add(CameraNumber(1));
    const auto result = network->AddCamera(CameraNumber(1));
    EXPECT_EQ(result.error, EADDRINUSE);
    EXPECT_THAT(result.reason, HasSubstr("127.0.1.1"));
    EXPECT_THAT(result.reason, HasSubstr("in use"));
}

TEST_F(SimulatedNetwork, RefusesAnAddressThatNoInterfaceHas) {
    SimulatedCameraOptions options = CameraNumber(1);
    options.address = 0xC0000201;
    const auto result = network->AddCamera(options);
    EXPECT_EQ(result.error, EADDRNOTAVAIL);
    EXPECT_THAT(result.reason, HasSubstr("192.0.2.1"));
}

TEST_F(SimulatedNetwork, RefusesAnInterfaceThatIsNotThere) {
    SimulatedCameraOptions options = CameraNumber(1);
    options.interfaceName = "nowhere0";
    const auto result = network->AddCamera(options);
    EXPECT_EQ(result.error, ENODEV);
    EXPECT_THAT(result.reason, HasSubstr("nowhere0"));
}

TEST_F(SimulatedNetwork, IsUntouchedByACameraThatCouldNotBeAdded) {
    Add(CameraNumber(1));
    EXPECT_FALSE(network->AddCamera(CameraNumber(1)));
    host->Broadcast(Gvcp::EncodeDiscoveryCommand(1, 1));
    EXPECT_TRUE(host->Receive());
    host->Send(0x7F000101, MakeRead(0x0024));
    EXPECT_EQ(host->Receive()->Decode().header.id, Gvcp::MessageId::ReadRegAck) << "one discovery answer, not two";
}

TEST_F(SimulatedNetwork, MisbehavesAlikeFromOneSeed) {
    const auto countAnswers = [this](std::uint64_t seed) {
        std::unique_ptr<SimulatedGigENetwork> seeded;
        space.Run([&] { seeded = std::make_unique<SimulatedGigENetwork>(SimulatedGigENetwork::Options{seed, {}}); });
        SimulatedCameraOptions options = CameraNumber(7);
        options.faults.lossPercent = 50;
        const auto camera = seeded->AddCamera(options);
        EXPECT_TRUE(camera) << camera.reason;
        std::vector<bool> answered;
        for (int i = 0; i < 64; ++i) {
            std::uint64_t before = 0;
            std::uint64_t after = 0;
            seeded->Use(camera.id, [&](SimulatedGigECamera& model) {
                before = model.GetStatistics().answered;
                model.Receive(MakeRead(0x0024).GetBytes(), {Loopback, 1}, Arrival::Unicast, {});
                after = model.GetStatistics().answered;
            });
            answered.push_back(after != before);
        }
        return answered;
    };
    const auto first = countAnswers(5);
    EXPECT_EQ(countAnswers(5), first);
    EXPECT_NE(countAnswers(6), first);
}

}  // namespace
}  // namespace Nimbrel2::Platform::Simulated
