// SPDX-License-Identifier: Apache-2.0
// Short words for talking to a simulated camera in memory. One thread, no lock.
#ifndef NIMBREL2_TESTS_PLATFORM_SIMULATED_CAMERATALK_H
#define NIMBREL2_TESTS_PLATFORM_SIMULATED_CAMERATALK_H

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include "platform/simulated/SimulatedGigECamera.h"

namespace Nimbrel2::Platform::Simulated {

namespace Register = Gvcp::Register;
using Gvcp::Status;
using std::chrono::milliseconds;

inline constexpr Endpoint TestHost{0xC0A84D01, 50000};   // 192.168.77.1
inline constexpr Endpoint OtherHost{0xC0A84D02, 50000};  // 192.168.77.2
inline constexpr Endpoint ForeignHost{0x0A000001, 50000};

inline SimulatedCameraOptions ExampleOptions() {
    SimulatedCameraOptions options;
    options.address = 0xC0A84D65;  // 192.168.77.101
    options.subnetMask = 0xFFFFFF00;
    options.gateway = 0xC0A84DFE;
    options.mac = 0x02B05E0A0B0C;
    options.vendor = "Maker";
    options.model = "Model";
    options.serialNumber = "12345";
    options.userDefinedName = "left one";
    return options;
}

/// An acknowledge that owns its bytes.
struct Reply {
    Status status{};
    Gvcp::MessageId id{};
    std::uint16_t ackId = 0;
    std::vector<std::uint32_t> words;  ///< the payload
    bool broadcast = false;
    milliseconds delay{0};
};

inline Reply ReadReply(const Answer& answer) {
    const Gvcp::DecodedAcknowledge decoded = Gvcp::DecodeAcknowledge(answer.packet.GetBytes());
    // A camera refuses also commands whose acknowledge no host would ever expect.
    if (decoded.error != Gvcp::DecodeError::UnknownMessage) {
        EXPECT_EQ(decoded.error, Gvcp::DecodeError::None) << Gvcp::Describe(decoded.error);
    }
    const Gvcp::WordView payload(answer.packet.GetBytes().subspan(Gvcp::HeaderBytes));
    Reply reply{decoded.header.status, decoded.header.id, decoded.header.ackId, {}, answer.broadcast, answer.delay};
    for (std::size_t i = 0; i < payload.GetCount(); ++i) {
        reply.words.push_back(payload[i]);
    }
    return reply;
}

/// A camera, the time, and request ids that count up.
class Conversation {
public:
    explicit Conversation(const SimulatedCameraOptions& options = ExampleOptions(), std::uint64_t seed = 1)
        : camera(options, seed) {}

    std::vector<Answer> Send(Gvcp::Bytes datagram, const Endpoint& peer = TestHost,
                             Arrival arrival = Arrival::Unicast) {
        return camera.Receive(datagram, peer, arrival, now);
    }

    std::vector<Answer> Send(const Gvcp::Packet& packet, const Endpoint& peer = TestHost,
                             Arrival arrival = Arrival::Unicast) {
        EXPECT_FALSE(packet.IsEmpty());
        return Send(packet.GetBytes(), peer, arrival);
    }

    Reply Ask(Gvcp::Bytes datagram, const Endpoint& peer = TestHost) {
        const std::vector<Answer> answers = Send(datagram, peer);
        EXPECT_EQ(answers.size(), 1u);
        return answers.size() == 1 ? ReadReply(answers.front()) : Reply{};
    }

    Reply Ask(const Gvcp::Packet& packet, const Endpoint& peer = TestHost) { return Ask(packet.GetBytes(), peer); }

    Gvcp::Packet MakeRead(std::initializer_list<std::uint32_t> addresses) {
        return Gvcp::EncodeReadRegCommand(NextId(), std::span(addresses.begin(), addresses.size()));
    }
    Gvcp::Packet MakeWrite(std::initializer_list<Gvcp::RegisterWrite> writes) {
        return Gvcp::EncodeWriteRegCommand(NextId(), std::span(writes.begin(), writes.size()));
    }

    Reply Read(std::initializer_list<std::uint32_t> addresses, const Endpoint& peer = TestHost) {
        return Ask(MakeRead(addresses), peer);
    }
    std::uint32_t ReadValue(std::uint32_t address, const Endpoint& peer = TestHost) {
        const Reply reply = Read({address}, peer);
        EXPECT_EQ(reply.status, Status::Success);
        return reply.words.empty() ? 0 : reply.words.front();
    }
    Status Write(std::uint32_t address, std::uint32_t value, const Endpoint& peer = TestHost) {
        return Ask(MakeWrite({{address, value}}), peer).status;
    }
    Reply ReadMemory(std::uint32_t address, std::uint16_t count, const Endpoint& peer = TestHost) {
        return Ask(Gvcp::EncodeReadMemCommand(NextId(), address, count), peer);
    }
    Reply WriteMemory(std::uint32_t address, const std::string& data, const Endpoint& peer = TestHost) {
        const Gvcp::Bytes bytes(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
        return Ask(Gvcp::EncodeWriteMemCommand(NextId(), address, bytes), peer);
    }
    Status TakeControl(const Endpoint& peer = TestHost, std::uint32_t privilege = Gvcp::Ccp::ControlAccess) {
        return Write(Register::ControlChannelPrivilege, privilege, peer);
    }

    std::uint16_t NextId() { return m_id = Gvcp::NextRequestId(m_id); }

    SimulatedGigECamera camera;
    TimePoint now{};

private:
    std::uint16_t m_id = 0;
};

/// The text of a READMEM_ACK, without its address, up to the first zero.
inline std::string TextOf(const Reply& reply) {
    std::string text;
    for (std::size_t i = 1; i < reply.words.size(); ++i) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            text.push_back(static_cast<char>(reply.words[i] >> shift));
        }
    }
    return text.substr(0, text.find('\0'));
}

}  // namespace Nimbrel2::Platform::Simulated

#endif
