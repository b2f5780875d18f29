// SPDX-License-Identifier: Apache-2.0
// A conversation with a simulated camera: any datagrams from several peers, over time; the answers are packets that
// answer what was asked, and the registers keep their rules.
//
// The input is one byte of misbehaviour and a row of turns: one byte of circumstances, two of size, the datagram.
#include <algorithm>

#include "fuzz/Require.h"
#include "platform/simulated/SimulatedGigECamera.h"

namespace {

using namespace Nimbrel2::Platform;
using Simulated::Answer;
using Simulated::Arrival;
using Simulated::Endpoint;
using Simulated::SimulatedGigECamera;

constexpr std::size_t MostTurns = 64;

struct Turn {
    Endpoint peer;
    Arrival arrival = Arrival::Unicast;
    std::chrono::milliseconds pause{0};
    Gvcp::Bytes datagram;
};

/// Takes one turn from the front of the input. @return false when there is none.
bool TakeTurn(Gvcp::Bytes* input, Turn* turn) {
    if (input->size() < 3) {
        return false;
    }
    const std::uint8_t circumstances = (*input)[0];
    turn->peer = {(circumstances & 0x01) != 0 ? 0xC0A84D01u : 0x0A000001u,
                  static_cast<std::uint16_t>((circumstances & 0x02) != 0 ? 50000 : 50001)};
    turn->arrival = (circumstances & 0x04) != 0 ? Arrival::Broadcast : Arrival::Unicast;
    turn->pause = std::chrono::milliseconds((circumstances >> 4) * 300);
    const std::size_t size = std::min<std::size_t>(Gvcp::LoadU16(&(*input)[1]), input->size() - 3);
    turn->datagram = input->subspan(3, size);
    *input = input->subspan(3 + size);
    return true;
}

void CheckAnswers(const Turn& turn, const std::vector<Answer>& answers, bool mayRepeat) {
    NIMBREL2_REQUIRE(answers.size() <= (mayRepeat ? 4u : 1u));
    for (const Answer& answer : answers) {
        const Gvcp::DecodedAcknowledge decoded = Gvcp::DecodeAcknowledge(answer.packet.GetBytes());
        NIMBREL2_REQUIRE(decoded.error == Gvcp::DecodeError::None ||
                         decoded.error == Gvcp::DecodeError::UnknownMessage);
        NIMBREL2_REQUIRE(turn.datagram.size() >= Gvcp::HeaderBytes);
        NIMBREL2_REQUIRE(decoded.header.ackId == Gvcp::LoadU16(&turn.datagram[6]));
        NIMBREL2_REQUIRE(!answer.broadcast || turn.arrival == Arrival::Broadcast ||
                         decoded.header.id == Gvcp::MessageId::ForceIpAck);
    }
}

void CheckRegisters(const SimulatedGigECamera& camera) {
    const auto& registers = camera.GetRegisters();
    NIMBREL2_REQUIRE(registers.GetControlPrivilege() <= 3);
    NIMBREL2_REQUIRE(registers.IsControlHeld() == registers.GetPrimaryApplication().has_value());
    NIMBREL2_REQUIRE(registers.Peek(Gvcp::Register::HeartbeatTimeout) >= 500);
    NIMBREL2_REQUIRE((registers.Peek(Gvcp::Register::CurrentIpConfiguration) & 4) != 0);
    NIMBREL2_REQUIRE(registers.Peek(Gvcp::Register::Version) == 0x00020000);
    NIMBREL2_REQUIRE(registers.GetMac() == 0x020000000909);
}

Simulated::SimulatedCameraOptions MakeOptions(bool misbehaves) {
    Simulated::SimulatedCameraOptions options;
    options.address = 0xC0A84D65;
    options.subnetMask = 0xFFFFFF00;
    options.mac = 0x020000000909;
    if (misbehaves) {
        options.faults.duplicatePercent = 50;
        options.faults.lossPercent = 10;
        options.faults.delayMaximum = std::chrono::milliseconds(100);
        options.faults.pendingAnnounced = std::chrono::milliseconds(100);
        options.faults.errors = {{.address = 0x0A04, .status = Gvcp::Status::Busy, .first = 2}};
    }
    return options;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool misbehaves = (data[0] & 1) != 0;
    SimulatedGigECamera camera(MakeOptions(misbehaves), data[0]);
    Gvcp::Bytes input(data + 1, size - 1);
    Simulated::TimePoint now{};
    Turn turn;
    for (std::size_t i = 0; i < MostTurns && TakeTurn(&input, &turn); ++i) {
        now += turn.pause;
        CheckAnswers(turn, camera.Receive(turn.datagram, turn.peer, turn.arrival, now), misbehaves);
        CheckRegisters(camera);
    }
    return 0;
}
