// SPDX-License-Identifier: Apache-2.0
// Registers of one camera. User threads and enumeration threads; the camera's command lock is held while it answers,
// m_mutex only to find it.
#include <algorithm>
#include <cerrno>

#include "platform/base/CameraAddress.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

using Gvcp::MessageId;

namespace Register = Gvcp::Register;

bool NoAnswerButPresent(std::uint32_t status) { return status != HAL_OK && status != HAL_CLOSED; }

}  // namespace

std::uint32_t GigECore::FindTarget(const ListedCamera& listed, Target* target) {
    std::lock_guard lock(m_mutex);
    if (!m_running) return HAL_CLOSED;
    const CameraTable::Camera* camera = m_table.Find(listed.key);
    if (camera == nullptr || camera->listed == nullptr) return HAL_GONE;
    const auto interface = m_interfaces.find(camera->listed->interface);
    if (interface == m_interfaces.end() || !interface->second.port) return HAL_GONE;
    target->port = interface->second.port;
    target->ip = camera->listed->ip;
    target->localIp = LocalAddressFor(interface->second.info, target->ip);
    target->channel = camera->channel;
    target->silent = CameraTable::HasMissedRound(*camera);
    return HAL_OK;
}

bool GigECore::CountsAsPresent(const ListedCamera& listed, std::uint32_t* ip) {
    std::lock_guard lock(m_mutex);
    const CameraTable::Camera* camera = m_table.Find(listed.key);
    if (camera != nullptr && camera->listed != nullptr) {
        *ip = camera->listed->ip;
        return true;
    }
    // One camera that leaves while the bus master walks through the listing must not cost it all the others. That this
    // one has left follows as an event.
    *ip = listed.record.ipAddress;
    return Clock::now() - listed.listedAt < m_timings.listedGrace;
}

std::uint32_t GigECore::ReadRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t* value) {
    if (address % 4 != 0) return HAL_INVALID_ARGUMENT;
    const std::uint32_t status = Execute(listed, Command{MessageId::ReadRegAck, address, 0}, value);
    std::uint32_t ip = 0;
    if (address == Register::kCurrentIpAddress && NoAnswerButPresent(status) && CountsAsPresent(listed, &ip)) {
        *value = ip;
        return HAL_OK;
    }
    return status;
}

std::uint32_t GigECore::WriteRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t value) {
    if (address % 4 != 0) return HAL_INVALID_ARGUMENT;
    std::uint32_t written = 0;
    const std::uint32_t status = Execute(listed, Command{MessageId::WriteRegAck, address, value}, &written);
    return status == HAL_OK && written != 1 ? std::uint32_t{HAL_BAD_ANSWER} : status;
}

std::uint32_t GigECore::Execute(const ListedCamera& listed, const Command& command, std::uint32_t* value) {
    Target target;
    std::uint32_t status = FindTarget(listed, &target);
    if (status != HAL_OK) return status;
    {
        std::lock_guard lock(target.channel->command);
        if (target.silent || Clock::now() < target.channel->quietUntil) return HAL_TIMED_OUT;
        status = ExecuteAlone(target, command, value);
        if (status == HAL_TIMED_OUT) target.channel->quietUntil = Clock::now() + m_timings.quietAfterTimeOut;
        if (status == HAL_OK && command.acknowledge == MessageId::WriteRegAck &&
            command.address == Register::kControlChannelPrivilege) {
            const std::uint32_t held = Gvcp::Ccp::kControlAccess | Gvcp::Ccp::kExclusiveAccess;
            target.channel->holdsControl = (command.value & held) != 0;
        }
    }
    if (status == HAL_TIMED_OUT) Suspect(listed.key);
    return status;
}

std::uint32_t GigECore::ExecuteAlone(const Target& target, const Command& command, std::uint32_t* value) {
    PendingReply reply;
    reply.id = m_ids.Take();
    if (reply.id == 0) return HAL_BUSY;
    reply.interface = target.port->GetInterface();
    reply.from = target.ip;
    reply.acknowledge = command.acknowledge;
    reply.limit = Clock::now() + m_timings.pendingLimit;

    const Gvcp::RegisterWrite write{command.address, command.value};
    const Gvcp::Packet packet = command.acknowledge == MessageId::ReadRegAck
                                    ? Gvcp::EncodeReadRegCommand(reply.id, {&command.address, 1})
                                    : Gvcp::EncodeWriteRegCommand(reply.id, {&write, 1});
    m_replies->Add(reply);
    const std::uint32_t sent = Exchange(target, reply, packet.GetBytes());
    const ReplyNews said = m_replies->Remove(reply);
    m_ids.Release(reply.id);
    if (sent != HAL_OK) return sent;
    if (!said.answered) return said.malformed ? HAL_BAD_ANSWER : HAL_TIMED_OUT;
    *value = said.value;
    return Gvcp::ToHalStatus(said.status);
}

// Sends the command up to three times, with one id: a camera that has executed it answers the repeat without executing
// it again. A pending acknowledge says that it is at work, so nothing is repeated from then on.
// Not HAL_OK when the network or Stop ended it; else the reply tells.
std::uint32_t GigECore::Exchange(const Target& target, PendingReply& reply, std::span<const std::uint8_t> packet) {
    ReplyNews said;
    for (int i = 0; i < m_timings.registerTries && !said.answered; ++i) {
        const int error = target.port->Send(packet, target.ip, target.localIp);
        if (error != 0 && error != EAGAIN && error != ENOBUFS) return StatusOfErrno(error);
        TimePoint deadline = Clock::now() + m_timings.registerTry;
        do {
            said = m_replies->Wait(reply, target.port.get(), deadline, *this);
            if (m_stopping) return HAL_CLOSED;
            if (said.pendingUntil != TimePoint()) {
                // It asks for more time: one that asks for less, or for none, is not given up the sooner for it.
                deadline = std::max(deadline, said.pendingUntil);
                i = m_timings.registerTries;
            }
        } while (!said.answered && Clock::now() < deadline);
    }
    return HAL_OK;
}

// Asks the camera that did not answer whether it is there at all, at once and not at its next turn.
void GigECore::Suspect(const CameraKey& key) {
    std::vector<Probe> probes;
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return;
        m_table.ProbeCamera(key, Clock::now(), &probes);
    }
    SendProbes(probes);
    m_poller.Wake();
}

std::uint32_t GigECore::GetLocalEnd(const ListedCamera& listed, std::uint32_t* ip, std::uint16_t* port) {
    Target target;
    const std::uint32_t status = FindTarget(listed, &target);
    if (status != HAL_OK) return status;
    *ip = target.localIp;
    *port = target.port->GetLocalPort();
    return HAL_OK;
}

std::uint32_t GigECore::GetControl(const ListedCamera& listed, ControlInfo* control) {
    *control = ControlInfo{};
    Target target;
    std::uint32_t status = FindTarget(listed, &target);
    if (status != HAL_OK) return status;

    std::uint32_t privilege = 0;
    status = Execute(listed, Command{MessageId::ReadRegAck, Register::kControlChannelPrivilege, 0}, &privilege);
    if (status == HAL_ACCESS_DENIED) {
        control->state = ControlState::Exclusive;
        return HAL_OK;
    }
    if (status != HAL_OK) return status;
    const std::uint32_t held = privilege & (Gvcp::Ccp::kControlAccess | Gvcp::Ccp::kExclusiveAccess);
    if (held == 0) {
        control->state = ControlState::Free;
        std::lock_guard lock(target.channel->command);
        target.channel->holdsControl = false;
        return HAL_OK;
    }

    // Many cameras do not say who holds them: they have no such registers, or zeros in them.
    std::uint32_t ownerPort = 0;
    std::uint32_t ownerIp = 0;
    const Command readPort{MessageId::ReadRegAck, Register::kPrimaryApplicationPort, 0};
    const Command readIp{MessageId::ReadRegAck, Register::kPrimaryApplicationIpAddress, 0};
    const bool known = Execute(listed, readPort, &ownerPort) == HAL_OK && Execute(listed, readIp, &ownerIp) == HAL_OK &&
                       ownerPort != 0 && ownerIp != 0;
    bool ours = false;
    if (known) {
        control->ownerIp = ownerIp;
        control->ownerPort = static_cast<std::uint16_t>(ownerPort);
        ours = ownerIp == target.localIp && ownerPort == target.port->GetLocalPort();
    } else {
        std::lock_guard lock(target.channel->command);
        ours = target.channel->holdsControl;
    }
    const bool exclusive = (held & Gvcp::Ccp::kExclusiveAccess) != 0;
    control->state = ours ? ControlState::Ours : exclusive ? ControlState::Exclusive : ControlState::Controlled;
    return HAL_OK;
}

// A camera that is there and does not say who controls it may only be watched: to try for control could disturb whoever
// has it.
std::uint32_t GigECore::IsInMonitorMode(const ListedCamera& listed, bool* monitor) {
    ControlInfo control;
    const std::uint32_t status = GetControl(listed, &control);
    *monitor = control.state != ControlState::Free && control.state != ControlState::Ours;
    if (status == HAL_OK || status == HAL_CLOSED) return status;
    std::uint32_t ip = 0;
    return CountsAsPresent(listed, &ip) ? std::uint32_t{HAL_OK} : status;
}

}  // namespace Nimbrel2::Platform::GigE
