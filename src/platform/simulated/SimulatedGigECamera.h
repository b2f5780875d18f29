// SPDX-License-Identifier: Apache-2.0
// One simulated GigE camera: a command comes in, answers go out, and what the camera was told to do wrong happens on
// the way. In memory only: no socket, no clock, no thread of its own. One thread at a time, no lock.
#ifndef NIMBREL2_PLATFORM_SIMULATED_SIMULATEDGIGECAMERA_H
#define NIMBREL2_PLATFORM_SIMULATED_SIMULATEDGIGECAMERA_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <vector>

#include "platform/base/Random.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/simulated/BootstrapRegisters.h"
#include "platform/simulated/SimulatedCameraOptions.h"

namespace Nimbrel2::Platform::Simulated {

/// How a datagram reached the camera.
enum class Arrival : std::uint8_t { Unicast, Broadcast };

/// A datagram that the camera sends, from the address that it has by then.
struct Answer {
    std::chrono::milliseconds delay{0};  ///< after the command came in
    bool broadcast = false;              ///< to 255.255.255.255, port of the asker; else to the asker
    Gvcp::Packet packet;
};

/// What happened to a camera, counted since it was made.
struct CameraStatistics {
    std::uint64_t received = 0;   ///< datagrams, whatever was in them
    std::uint64_t discovery = 0;  ///< DISCOVERY commands understood
    std::uint64_t executed = 0;   ///< commands carried out or refused with a status
    std::uint64_t repeated = 0;   ///< retransmissions that were answered without being carried out again
    std::uint64_t lost = 0;       ///< datagrams lost on purpose, both ways
    std::uint64_t answered = 0;   ///< answers given out
};

class SimulatedGigECamera {
public:
    /// @param seed  Cameras of one seed, told the same, misbehave alike.
    SimulatedGigECamera(const SimulatedCameraOptions& options, std::uint64_t seed);

    /// What the camera answers to a datagram; often nothing. FORCEIP changes GetAddress() at once: its acknowledge is
    /// to be sent from there.
    std::vector<Answer> Receive(Gvcp::Bytes datagram, const Endpoint& peer, Arrival arrival, TimePoint now);

    BootstrapRegisters& GetRegisters() { return m_registers; }
    const BootstrapRegisters& GetRegisters() const { return m_registers; }
    const Faults& GetFaults() const { return m_faults; }
    const CameraStatistics& GetStatistics() const { return m_statistics; }
    std::uint32_t GetAddress() const { return m_registers.GetAddress(); }

    /// Error rules count from here anew.
    void SetFaults(const Faults& faults);
    /// Plugged out (true) and in again; registers and control stay as they are.
    void SetSilent(bool silent) { m_faults.silent = silent; }
    /// Switched off and on: control, forced address and everything else volatile is lost.
    void PowerCycle();

private:
    /// The last register command of a peer and its answer, for retransmissions.
    struct LastCommand {
        Endpoint peer;
        std::vector<std::uint8_t> command;
        Gvcp::Packet answer;
    };

    std::vector<Answer> AnswerDiscovery(const Gvcp::DecodedCommand& command, const Endpoint& peer, Arrival arrival);
    std::vector<Answer> AnswerForceIp(const Gvcp::DecodedCommand& command, const Endpoint& peer);
    std::vector<Answer> AnswerRegisterCommand(Gvcp::Bytes datagram, const Gvcp::DecodedCommand& command,
                                              const Endpoint& peer, TimePoint now);
    std::vector<Answer> AnswerMalformed(const Gvcp::DecodedCommand& command, const Endpoint& peer);

    Gvcp::Packet Execute(const Gvcp::DecodedCommand& command, const Endpoint& peer, TimePoint now);
    Gvcp::Packet ReadRegisters(const Gvcp::CommandHeader& header, const Gvcp::ReadRegCommand& body,
                               const Endpoint& peer);
    Gvcp::Packet WriteRegisters(const Gvcp::CommandHeader& header, const Gvcp::WriteRegCommand& body,
                                const Endpoint& peer, TimePoint now);
    Gvcp::Packet ReadMemory(const Gvcp::CommandHeader& header, const Gvcp::ReadMemCommand& body, const Endpoint& peer);
    Gvcp::Packet WriteMemory(const Gvcp::CommandHeader& header, const Gvcp::WriteMemCommand& body, const Endpoint& peer,
                             TimePoint now);

    /// The status that an error rule gives this command, Success when none does. Counts.
    Gvcp::Status FindFault(const Gvcp::DecodedCommand& command);
    const LastCommand* FindLast(const Endpoint& peer, Gvcp::Bytes datagram) const;
    void Remember(const Endpoint& peer, Gvcp::Bytes datagram, const Gvcp::Packet& answer);

    bool IsInSubnet(std::uint32_t address) const;
    /// Delay, loss, duplicates, cuts. @param pending  Whether a PENDING_ACK may go before it.
    std::vector<Answer> Send(const Gvcp::Packet& packet, bool broadcast, std::chrono::milliseconds delay, bool pending);
    void AddAnswer(Gvcp::Packet packet, bool broadcast, std::chrono::milliseconds delay, std::vector<Answer>* answers);

    BootstrapRegisters m_registers;
    Faults m_faults;
    std::vector<std::uint32_t> m_ruleMatches;  ///< one counter for each error rule
    Random m_random;
    std::deque<LastCommand> m_lastCommands;  ///< the latest first, bounded
    CameraStatistics m_statistics;
};

}  // namespace Nimbrel2::Platform::Simulated

#endif
