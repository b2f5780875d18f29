// SPDX-License-Identifier: Apache-2.0
// Independent programs judge the simulated camera: arv-tool lists, reads and describes it, tshark dissects each kind of
// packet that it sends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sstream>

#include "CameraTalk.h"
#include "HostSocket.h"
#include "platform/simulated/SimulatedGigENetwork.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketCapture.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

using Nimbrel2::Testing::NetworkNamespace;
using Nimbrel2::Testing::PacketCapture;
using Nimbrel2::Testing::ProgramResult;
using Nimbrel2::Testing::TemporaryFile;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr std::uint32_t CameraIp = 0x7F000109;
constexpr std::uint64_t CameraMac = 0x020000000909;

class SimulatedCameraAndTools : public ::testing::Test {
protected:
    void SetUp() override {
        space.Run([this] {
            network = std::make_unique<SimulatedGigENetwork>();
            host = std::make_unique<HostSocket>(0x7F000001);
        });
        SimulatedCameraOptions options;
        options.address = CameraIp;
        options.mac = CameraMac;
        options.serialNumber = "4711";
        options.userDefinedName = "left one";
        const auto result = network->AddCamera(options);
        ASSERT_TRUE(result) << result.reason;
        camera = result.id;
    }

    void TearDown() override {
        space.Run([this] { network.reset(); });
    }

    ProgramResult ArvTool(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "arv-tool-0.8");
        return space.RunProgram(arguments);
    }

    NetworkNamespace space;
    std::unique_ptr<SimulatedGigENetwork> network;
    std::unique_ptr<HostSocket> host;
    SimulatedGigENetwork::CameraId camera = 0;
};

TEST_F(SimulatedCameraAndTools, ArvToolListsIt) {
    const ProgramResult result = ArvTool({});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("Nimbrel-Simulated GigE Camera-4711 (127.0.1.9)"));
}

TEST_F(SimulatedCameraAndTools, ArvToolReadsARegister) {
    const ProgramResult result = ArvTool({"-a", "127.0.1.9", "control", "R[0x24]", "R[0xA00]"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("R[0x00000024] = 0x7f000109"));
    EXPECT_THAT(result.output, HasSubstr("R[0x00000a00] = 0x00000002")) << "it holds control while it reads";
    EXPECT_TRUE(network->WaitUntil(
        camera, [](SimulatedGigECamera& model) { return !model.GetRegisters().IsControlHeld(); },
        std::chrono::seconds(10)));
}

TEST_F(SimulatedCameraAndTools, ArvToolUsesItsDescription) {
    const ProgramResult values = ArvTool({"-a", "127.0.1.9", "values"});
    EXPECT_EQ(values.exitStatus, 0) << values.errors;
    EXPECT_THAT(values.output, HasSubstr("'DeviceID' = '4711'"));
    EXPECT_THAT(values.output, HasSubstr("'DeviceUserID' = 'left one'"));
    EXPECT_THAT(values.output, HasSubstr("'PayloadSize' = 307200"));
    EXPECT_THAT(values.output, HasSubstr("'PixelFormat' = 'Mono8'"));

    const ProgramResult written = ArvTool({"-a", "127.0.1.9", "control", "Width=128", "PayloadSize"});
    EXPECT_EQ(written.exitStatus, 0) << written.errors;
    EXPECT_THAT(written.output, HasSubstr("Width = 128"));
    EXPECT_THAT(written.output, HasSubstr("PayloadSize = 61440"));
    std::uint32_t width = 0;
    network->Use(camera, [&](SimulatedGigECamera& model) { width = model.GetRegisters().Peek(0xA000); });
    EXPECT_EQ(width, 128u);
}

TEST_F(SimulatedCameraAndTools, TheDescriptionIsWellFormed) {
    const ProgramResult result = ArvTool({"-a", "127.0.1.9", "genicam"});
    ASSERT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("</RegisterDescription>"));
    EXPECT_THAT(result.errors, Not(HasSubstr("parser")));
}

// ---- tshark --------------------------------------------------------------------------------------------------------

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// A packet as tshark lists it with these fields: command id, acknowledge id, request id, status.
const std::vector<std::string> Fields{"-T", "fields",   "-E", "separator=,",     "-e", "gvcp.cmd.command",
                                      "-e", "gvcp.ack", "-e", "gvcp.cmd.req_id", "-e", "gvcp.cmd.status"};

const std::vector<std::string> Malformed{"-Y", "_ws.malformed || _ws.expert.severity >= 0x600000"};

std::string Tshark(const TemporaryFile& capture, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"tshark", "-r", capture.GetPath()});
    const ProgramResult result = Nimbrel2::Testing::RunProgram(arguments, std::chrono::seconds(50));
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    return result.output;
}

std::string ListedCommand(unsigned int command, unsigned int id) {
    std::array<char, 32> line{};
    std::snprintf(line.data(), line.size(), "0x%04x,,0x%04x,", command, id);
    return line.data();
}

std::string ListedAcknowledge(unsigned int acknowledge, unsigned int id, unsigned int status) {
    std::array<char, 32> line{};
    std::snprintf(line.data(), line.size(), ",0x%04x,0x%04x,0x%04x", acknowledge, id, status);
    return line.data();
}

TEST_F(SimulatedCameraAndTools, TsharkFindsNothingMalformed) {
    std::unique_ptr<PacketCapture> capture;
    space.Run([&] { capture = std::make_unique<PacketCapture>("lo"); });
    std::vector<std::string> expected;
    const auto ask = [&](const Gvcp::Packet& packet, unsigned int status, std::uint32_t address = CameraIp) {
        const Gvcp::CommandHeader header = Gvcp::DecodeCommand(packet.GetBytes()).header;
        const auto command = static_cast<unsigned int>(header.id);
        host->Send(address, packet);
        EXPECT_TRUE(host->Receive());
        expected.push_back(ListedCommand(command, header.requestId));
        expected.push_back(ListedAcknowledge(command + 1, header.requestId, status));
    };
    const std::uint32_t four[] = {0x0024, 0x0A00, 0x0A04, 0x0A14};
    const std::uint32_t secondAbsent[] = {0x0024, 0x0100};
    const Gvcp::RegisterWrite control[] = {{0x0A00, 2}};
    const Gvcp::RegisterWrite several[] = {{0xA000, 320}, {0xA004, 240}};
    const Gvcp::RegisterWrite secondProtected[] = {{0xA000, 320}, {0x0024, 0}};
    const std::string name = "right one       ";
    const Gvcp::Bytes nameBytes(reinterpret_cast<const std::uint8_t*>(name.data()), name.size());

    ask(Gvcp::EncodeDiscoveryCommand(1, 0x11), 0, 0xFFFFFFFF);
    ask(Gvcp::EncodeDiscoveryCommand(2, 0x01), 0);
    ask(Gvcp::EncodeReadRegCommand(3, std::span(four).first(1)), 0);
    ask(Gvcp::EncodeReadRegCommand(4, four), 0);
    ask(Gvcp::EncodeReadRegCommand(5, secondAbsent), 0x8003);
    ask(Gvcp::EncodeReadMemCommand(6, 0x0048, 32), 0);
    ask(Gvcp::EncodeReadMemCommand(7, 0x0100, 4), 0x8003);
    ask(Gvcp::EncodeForceIpCommand(8, 0x11, {0x0200, 0x00000909, CameraIp, 0xFF000000, 0}), 0, 0xFFFFFFFF);
    ask(Gvcp::EncodeWriteRegCommand(9, control), 0);
    ask(Gvcp::EncodeWriteRegCommand(10, several), 0);
    ask(Gvcp::EncodeWriteRegCommand(11, secondProtected), 0x8004);
    ask(Gvcp::EncodeWriteMemCommand(12, 0x00E8, nameBytes), 0);
    ask(Gvcp::EncodeWriteMemCommand(13, 0x0048, nameBytes), 0x8004);
    network->Use(camera, [](SimulatedGigECamera& model) {
        Faults faults;
        faults.pendingAnnounced = milliseconds(100);
        faults.pendingActual = milliseconds(1);
        model.SetFaults(faults);
    });
    ask(Gvcp::EncodeReadRegCommand(14, four), 0);
    EXPECT_TRUE(host->Receive()) << "the answer after the pending one";
    expected.insert(std::prev(expected.end()), ListedAcknowledge(0x0089, 14, 0));

    capture->Collect();
    const TemporaryFile file;
    capture->WriteTo(file.GetPath());
    EXPECT_THAT(Lines(Tshark(file, Fields)), ElementsAreArray(expected));
    EXPECT_THAT(Tshark(file, Malformed), IsEmpty());
}

TEST_F(SimulatedCameraAndTools, TsharkTellsAnAnswerThatWasCut) {
    std::unique_ptr<PacketCapture> capture;
    space.Run([&] { capture = std::make_unique<PacketCapture>("lo"); });
    network->Use(camera, [](SimulatedGigECamera& model) {
        Faults faults;
        faults.truncateTo = 100;
        model.SetFaults(faults);
    });
    host->Send(CameraIp, Gvcp::EncodeDiscoveryCommand(1, 0x01));
    ASSERT_TRUE(host->Receive());
    capture->Collect();
    const TemporaryFile file;
    capture->WriteTo(file.GetPath());
    EXPECT_THAT(Tshark(file, Malformed), HasSubstr("Malformed"));
}

}  // namespace
}  // namespace Nimbrel2::Platform::Simulated
