// SPDX-License-Identifier: Apache-2.0
// A simulated camera's side of GVCP. One thread at a time, no lock, no I/O, no clock.
#include "platform/simulated/SimulatedGigECamera.h"

#include <algorithm>
#include <array>
#include <bit>

namespace Nimbrel2::Platform::Simulated {

using Gvcp::Bytes;
using Gvcp::DecodedCommand;
using Gvcp::DecodeError;
using Gvcp::Packet;
using Gvcp::Status;
using std::chrono::milliseconds;

namespace {

/// Peers whose last command is kept; one application is the rule, a flood of them must not grow the camera.
constexpr std::size_t MostPeers = 8;

Packet Refuse(const Gvcp::CommandHeader& header, Status status, std::span<const std::uint32_t> words = {}) {
    return Gvcp::EncodeErrorAck(Gvcp::AcknowledgeIdOf(header.id), header.requestId, status, words);
}

bool IsContiguous(std::uint32_t subnetMask) {
    return std::countl_one(subnetMask) + std::countr_zero(subnetMask) == 32 && subnetMask != 0;
}

/// Whether a host may have this address.
bool IsHostAddress(std::uint32_t address) { return address >> 28 < 0xE && address >> 24 != 0; }

bool Covers(std::uint32_t address, std::size_t size, std::uint32_t wanted) {
    return wanted >= address && wanted - address < size;
}

bool Touches(const DecodedCommand& command, std::uint32_t address) {
    if (const auto* read = std::get_if<Gvcp::ReadRegCommand>(&command.body)) {
        for (std::size_t i = 0; i < read->addresses.GetCount(); ++i) {
            if (read->addresses[i] == address) {
                return true;
            }
        }
    } else if (const auto* write = std::get_if<Gvcp::WriteRegCommand>(&command.body)) {
        for (std::size_t i = 0; i < write->GetCount(); ++i) {
            if ((*write)[i].address == address) {
                return true;
            }
        }
    } else if (const auto* readMemory = std::get_if<Gvcp::ReadMemCommand>(&command.body)) {
        return Covers(readMemory->address, readMemory->count, address);
    } else if (const auto* writeMemory = std::get_if<Gvcp::WriteMemCommand>(&command.body)) {
        return Covers(writeMemory->address, writeMemory->data.size(), address);
    }
    return false;
}

}  // namespace

// ---- Settings ------------------------------------------------------------------------------------------------------

SimulatedGigECamera::SimulatedGigECamera(const SimulatedCameraOptions& options, std::uint64_t seed)
    : m_registers(options), m_random(seed) {
    SetFaults(options.faults);
}

void SimulatedGigECamera::SetFaults(const Faults& faults) {
    m_faults = faults;
    m_ruleMatches.assign(faults.errors.size(), 0);
}

void SimulatedGigECamera::PowerCycle() {
    m_registers.PowerCycle();
    m_lastCommands.clear();
}

// ---- In ------------------------------------------------------------------------------------------------------------

std::vector<Answer> SimulatedGigECamera::Receive(Bytes datagram, const Endpoint& peer, Arrival arrival, TimePoint now) {
    ++m_statistics.received;
    if (m_faults.silent) {
        return {};
    }
    if (m_random.HappensInPercent(m_faults.lossPercent)) {
        ++m_statistics.lost;
        return {};
    }
    m_registers.ExpireControl(now);

    const DecodedCommand command = Gvcp::DecodeCommand(datagram);
    const bool forAll =
        command.error == DecodeError::None && (std::holds_alternative<Gvcp::DiscoveryCommand>(command.body) ||
                                               std::holds_alternative<Gvcp::ForceIpCommand>(command.body));
    if (arrival == Arrival::Broadcast && !forAll) {
        return {};
    }
    if (command.error != DecodeError::None) {
        return AnswerMalformed(command, peer);
    }

    m_registers.Touch(peer, now);
    if (std::holds_alternative<Gvcp::DiscoveryCommand>(command.body)) {
        return AnswerDiscovery(command, peer, arrival);
    }
    if (std::holds_alternative<Gvcp::ForceIpCommand>(command.body)) {
        return AnswerForceIp(command, peer);
    }
    return AnswerRegisterCommand(datagram, command, peer, now);
}

std::vector<Answer> SimulatedGigECamera::AnswerMalformed(const DecodedCommand& command, const Endpoint& peer) {
    Status status = Status::InvalidParameter;
    switch (command.error) {
        case DecodeError::Truncated:
        case DecodeError::TrailingBytes:
            status = Status::InvalidHeader;
            break;
        case DecodeError::UnknownMessage:
            status = Status::NotImplemented;
            break;
        case DecodeError::PayloadTooLong:
        case DecodeError::PayloadNotWords:
        case DecodeError::WrongPayloadLength:
            break;
        default:
            return {};  // not even a header that could be answered
    }
    ++m_statistics.executed;
    if (!command.header.IsAcknowledgeRequired()) {
        return {};
    }
    if (m_registers.IsLockedFor(peer)) {
        status = Status::AccessDenied;
    }
    return Send(Refuse(command.header, status), false, milliseconds(0), false);
}

std::vector<Answer> SimulatedGigECamera::AnswerDiscovery(const DecodedCommand& command, const Endpoint& peer,
                                                         Arrival arrival) {
    ++m_statistics.discovery;
    ++m_statistics.executed;
    if (!command.header.IsAcknowledgeRequired()) {
        return {};
    }
    // An asker on a foreign subnet could not be reached by unicast, and must have allowed the other way.
    const bool broadcast = arrival == Arrival::Broadcast && !IsInSubnet(peer.address);
    if (broadcast && !command.header.MayBroadcastAcknowledge()) {
        return {};
    }

    const milliseconds delay = arrival == Arrival::Broadcast
                                   ? m_random.Between(milliseconds(0), m_registers.GetDiscoveryDelay())
                                   : milliseconds(0);
    const Status fault = FindFault(command);
    const Packet packet = fault == Status::Success
                              ? Gvcp::EncodeDiscoveryAck(command.header.requestId, m_registers.GetDiscoveryRecord())
                              : Refuse(command.header, fault);
    return Send(packet, broadcast, delay, false);
}

std::vector<Answer> SimulatedGigECamera::AnswerForceIp(const DecodedCommand& command, const Endpoint& peer) {
    const auto& force = std::get<Gvcp::ForceIpCommand>(command.body);
    const std::uint64_t mac = static_cast<std::uint64_t>(force.macHigh) << 32 | force.macLow;
    if (mac != m_registers.GetMac() || m_registers.IsControlHeld()) {
        return {};
    }
    const Status fault = FindFault(command);
    if (fault == Status::Success && force.ipAddress == 0) {
        ++m_statistics.executed;
        m_registers.RestartIpConfiguration();
        return {};
    }
    if (!IsHostAddress(force.ipAddress) || !IsContiguous(force.subnetMask)) {
        return {};
    }
    ++m_statistics.executed;
    if (fault == Status::Success) {
        m_registers.SetIpConfiguration(force.ipAddress, force.subnetMask, force.gateway);
    }
    if (!command.header.IsAcknowledgeRequired()) {
        return {};
    }
    const bool broadcast = command.header.MayBroadcastAcknowledge() && !IsInSubnet(peer.address);
    const Packet packet =
        fault == Status::Success ? Gvcp::EncodeForceIpAck(command.header.requestId) : Refuse(command.header, fault);
    return Send(packet, broadcast, milliseconds(0), false);
}

std::vector<Answer> SimulatedGigECamera::AnswerRegisterCommand(Bytes datagram, const DecodedCommand& command,
                                                               const Endpoint& peer, TimePoint now) {
    Packet answer;
    if (const LastCommand* last = FindLast(peer, datagram)) {
        ++m_statistics.repeated;
        answer = last->answer;
    } else {
        ++m_statistics.executed;
        const Status fault = FindFault(command);
        answer = fault == Status::Success ? Execute(command, peer, now) : Refuse(command.header, fault);
        Remember(peer, datagram, answer);
    }
    if (!command.header.IsAcknowledgeRequired()) {
        return {};
    }
    return Send(answer, false, milliseconds(0), true);
}

// ---- Retransmissions -----------------------------------------------------------------------------------------------

const SimulatedGigECamera::LastCommand* SimulatedGigECamera::FindLast(const Endpoint& peer, Bytes datagram) const {
    for (const LastCommand& last : m_lastCommands) {
        if (last.peer != peer) {
            continue;
        }
        return std::equal(datagram.begin(), datagram.end(), last.command.begin(), last.command.end()) ? &last : nullptr;
    }
    return nullptr;
}

void SimulatedGigECamera::Remember(const Endpoint& peer, Bytes datagram, const Packet& answer) {
    std::erase_if(m_lastCommands, [&](const LastCommand& last) { return last.peer == peer; });
    if (m_lastCommands.size() == MostPeers) {
        m_lastCommands.pop_back();
    }
    m_lastCommands.push_front({peer, std::vector<std::uint8_t>(datagram.begin(), datagram.end()), answer});
}

// ---- Register commands ---------------------------------------------------------------------------------------------

Packet SimulatedGigECamera::Execute(const DecodedCommand& command, const Endpoint& peer, TimePoint now) {
    if (const auto* read = std::get_if<Gvcp::ReadRegCommand>(&command.body)) {
        return ReadRegisters(command.header, *read, peer);
    }
    if (const auto* write = std::get_if<Gvcp::WriteRegCommand>(&command.body)) {
        return WriteRegisters(command.header, *write, peer, now);
    }
    if (const auto* read = std::get_if<Gvcp::ReadMemCommand>(&command.body)) {
        return ReadMemory(command.header, *read, peer);
    }
    if (const auto* write = std::get_if<Gvcp::WriteMemCommand>(&command.body)) {
        return WriteMemory(command.header, *write, peer, now);
    }
    return Refuse(command.header, Status::NotImplemented);
}

Packet SimulatedGigECamera::ReadRegisters(const Gvcp::CommandHeader& header, const Gvcp::ReadRegCommand& body,
                                          const Endpoint& peer) {
    const std::size_t count = body.addresses.GetCount();
    if (count > 1 && !m_registers.HasConcatenation()) {
        return Refuse(header, m_registers.IsLockedFor(peer) ? Status::AccessDenied : Status::InvalidParameter);
    }
    std::array<std::uint32_t, Gvcp::MaxReadRegAddresses> values{};
    for (std::size_t i = 0; i < count; ++i) {
        const Status status = m_registers.Read(peer, body.addresses[i], &values[i]);
        if (status != Status::Success) {
            return Refuse(header, status, std::span(values).first(i));
        }
    }
    return Gvcp::EncodeReadRegAck(header.requestId, std::span(values).first(count));
}

Packet SimulatedGigECamera::WriteRegisters(const Gvcp::CommandHeader& header, const Gvcp::WriteRegCommand& body,
                                           const Endpoint& peer, TimePoint now) {
    const std::size_t count = body.GetCount();
    if (count > 1 && !m_registers.HasConcatenation()) {
        return Refuse(header, m_registers.IsLockedFor(peer) ? Status::AccessDenied : Status::InvalidParameter);
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        const Gvcp::RegisterWrite write = body[i];
        const Status status = m_registers.Write(peer, write.address, write.value, now);
        if (status != Status::Success) {
            return Refuse(header, status, std::span(&i, 1));
        }
    }
    return Gvcp::EncodeWriteRegAck(header.requestId, static_cast<std::uint16_t>(count));
}

Packet SimulatedGigECamera::ReadMemory(const Gvcp::CommandHeader& header, const Gvcp::ReadMemCommand& body,
                                       const Endpoint& peer) {
    std::array<std::uint8_t, Gvcp::MaxMemoryBytes> data;
    const Status status = m_registers.ReadMemory(peer, body.address, body.count, data.data());
    if (status != Status::Success) {
        return Refuse(header, status);
    }
    return Gvcp::EncodeReadMemAck(header.requestId, body.address, Bytes(data.data(), body.count));
}

Packet SimulatedGigECamera::WriteMemory(const Gvcp::CommandHeader& header, const Gvcp::WriteMemCommand& body,
                                        const Endpoint& peer, TimePoint now) {
    std::uint16_t written = 0;
    const Status status = m_registers.WriteMemory(peer, body.address, body.data, now, &written);
    const std::uint32_t index = written;
    if (status != Status::Success) {
        return Refuse(header, status, std::span(&index, 1));
    }
    return Gvcp::EncodeWriteMemAck(header.requestId, written);
}

// ---- Faults, and out -----------------------------------------------------------------------------------------------

Status SimulatedGigECamera::FindFault(const DecodedCommand& command) {
    for (std::size_t i = 0; i < m_faults.errors.size(); ++i) {
        const ErrorRule& rule = m_faults.errors[i];
        if (rule.command && *rule.command != command.header.id) {
            continue;
        }
        if (rule.address && !Touches(command, *rule.address)) {
            continue;
        }
        const std::uint32_t match = ++m_ruleMatches[i];
        if (match >= rule.first && (rule.count == 0 || match - rule.first < rule.count)) {
            return rule.status;
        }
    }
    return Status::Success;
}

bool SimulatedGigECamera::IsInSubnet(std::uint32_t address) const {
    const std::uint32_t mask = m_registers.GetSubnetMask();
    return (address & mask) == (m_registers.GetAddress() & mask);
}

std::vector<Answer> SimulatedGigECamera::Send(const Packet& packet, bool broadcast, milliseconds delay, bool pending) {
    std::vector<Answer> answers;
    delay += m_random.Between(m_faults.delayMinimum, m_faults.delayMaximum);
    if (pending && m_faults.pendingAnnounced.count() != 0) {
        const std::uint16_t requestId = Gvcp::LoadU16(packet.GetData() + 6);
        const auto announced = std::min<milliseconds::rep>(m_faults.pendingAnnounced.count(), 0xFFFF);
        AddAnswer(Gvcp::EncodePendingAck(requestId, static_cast<std::uint16_t>(announced)), broadcast, delay, &answers);
        delay += m_faults.pendingActual;
    }
    AddAnswer(packet, broadcast, delay, &answers);
    return answers;
}

void SimulatedGigECamera::AddAnswer(Packet packet, bool broadcast, milliseconds delay, std::vector<Answer>* answers) {
    if (m_random.HappensInPercent(m_faults.lossPercent)) {
        ++m_statistics.lost;
        return;
    }
    if (m_faults.truncateTo) {
        packet.Truncate(*m_faults.truncateTo);
    }
    const int copies = m_random.HappensInPercent(m_faults.duplicatePercent) ? 2 : 1;
    for (int i = 0; i < copies; ++i) {
        answers->push_back({delay, broadcast, packet});
    }
    m_statistics.answered += static_cast<std::uint64_t>(copies);
}

}  // namespace Nimbrel2::Platform::Simulated
