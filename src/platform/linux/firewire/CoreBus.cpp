// SPDX-License-Identifier: Apache-2.0
// What takes the controller's own file: self-IDs, PHY registers. And the numbers of nodes, and bus resets. Any user
// thread; m_mutex is let go while the bus answers.
#include <linux/firewire-constants.h>

#include <algorithm>

#include "platform/linux/firewire/FireWireCore.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

constexpr unsigned int MaxPhys = 63;
constexpr std::uint32_t FirstPagedRegister = 8;

unsigned int PhyIdOf(std::uint16_t nodeId) { return nodeId & 0x3F; }

// Remote access packets (IEEE 1394a-2000 4.3.4.3): what is asked, and what the bits of the reply are but the value.
struct PhyPackets {
    std::uint32_t request = 0;
    std::uint32_t reply = 0;
};

PhyPackets RemoteAccess(unsigned int phyId, std::uint32_t page, std::uint32_t port, std::uint32_t address) {
    const std::uint32_t phy = phyId << 24;
    if (address < FirstPagedRegister) {
        return {phy | 1U << 18 | address << 8, phy | 3U << 18 | address << 8};
    }
    const std::uint32_t paged = phy | page << 15 | port << 11 | (address - FirstPagedRegister) << 8;
    return {paged | 5U << 18, paged | 7U << 18};
}

}  // namespace

// One bus read a generation, whoever asks: the monitor begins it after each reset.
std::uint32_t FireWireCore::WaitForSelfIds(UniqueLock& lock, const std::string& path) {
    const TimePoint deadline = Clock::now() + m_timings.transaction;
    while (true) {
        Node* local = nullptr;
        const std::uint32_t status = CheckSelfIds(path, &local);
        if (status != HAL_BUSY || Clock::now() >= deadline || local == nullptr) {
            return status;
        }
        Card& card = m_cards[path];
        if (card.selfIds.generation != card.ids.generation || card.selfIds.state == State::None) {
            AskSelfIds(*local, card);
            if (card.selfIds.state == State::None && !Pause(lock, m_timings.busyPause)) {
                return HAL_CLOSED;
            }
        } else {
            m_changed.WaitUntil(lock, deadline);
        }
    }
}

// @param local  Receives the node to ask, if it may be asked.
// @return HAL_BUSY when the self-IDs of the bus as it is now have not been read yet.
std::uint32_t FireWireCore::CheckSelfIds(const std::string& path, Node** local) {
    RefreshCard(path);
    m_monitor.Wake();
    if (const std::uint32_t status = FindUsableLocal(path, local); status != HAL_OK) {
        *local = nullptr;
        return status;
    }
    const Card& card = m_cards[path];
    const bool isRead = card.selfIds.state == State::Done && card.selfIds.generation == card.ids.generation;
    return isRead ? card.selfIds.status : static_cast<std::uint32_t>(HAL_BUSY);
}

std::uint32_t FireWireCore::GetSelfIds(const NodeKey& key, std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                                       std::uint32_t* generation) {
    UniqueLock lock(m_mutex);
    Node* node = nullptr;
    // A node that may not be opened has no place in the tree that anybody knows: without this it would take another's.
    std::uint32_t status = FindUsable(key, &node);
    if (status == HAL_OK) {
        status = WaitForSelfIds(lock, key.card);
    }
    if (status == HAL_OK) {
        status = FindPresent(key, &node);
    }
    if (status != HAL_OK) {
        return status;
    }
    const Card& card = m_cards[key.card];
    *packets = card.selfIds.value;
    *busKey = card.number.value_or(0) + std::uint64_t{1};
    *generation = static_cast<std::uint32_t>(card.resets);
    return HAL_OK;
}

std::uint32_t FireWireCore::GetNodeSerialNumbers(const NodeKey& key, std::vector<std::uint32_t>* serialNumbers) {
    UniqueLock lock(m_mutex);
    const TimePoint deadline = Clock::now() + m_timings.transaction;
    while (true) {
        RefreshCard(key.card);
        m_monitor.Wake();
        Node* asked = nullptr;
        if (const std::uint32_t status = FindPresent(key, &asked); status != HAL_OK) {
            return status;
        }
        // Numbers of different generations would give one node's serial number to another.
        if (IsOfOneGeneration(key.card)) {
            break;
        }
        if (Clock::now() >= deadline) {
            return HAL_BUSY;
        }
        if (!Pause(lock, m_timings.generationPause)) {
            return HAL_CLOSED;
        }
    }
    const BusIds& bus = m_cards[key.card].ids;
    serialNumbers->assign(std::min(PhyIdOf(bus.root) + 1, MaxPhys), 0);
    for (const auto& [name, node] : m_nodes) {
        if (node.key.card != key.card || !node.IsOpen() || !IsPresent(node)) {
            continue;
        }
        const unsigned int phyId = PhyIdOf(node.ids.node);
        if (phyId < serialNumbers->size()) {
            (*serialNumbers)[phyId] = static_cast<std::uint32_t>(node.key.eui64);
        }
    }
    return HAL_OK;
}

// Any node's file will do; the node's own comes first.
std::uint32_t FireWireCore::FireBusReset(const NodeKey& key) {
    std::vector<std::shared_ptr<NodeFile>> files;
    std::uint32_t status = HAL_OK;
    {
        const LockGuard lock(m_mutex);
        RefreshCard(key.card);
        m_monitor.Wake();
        Node* node = nullptr;
        status = FindPresent(key, &node);
        if (status != HAL_OK) {
            return status;
        }
        status = StatusOfFile(node->openError);
        if (node->IsOpen()) {
            files.push_back(node->file);
        }
        for (const auto& [name, other] : m_nodes) {
            const bool isUsable = other.key.card == key.card && other.IsOpen() && IsPresent(other);
            if (isUsable && &other != node) {
                files.push_back(other.file);
            }
        }
    }
    for (const std::shared_ptr<NodeFile>& file : files) {
        const int error = file->ResetBus();
        if (error == 0) {
            return HAL_OK;
        }
        status = StatusOfFile(error);
    }
    return status;
}

std::uint32_t FireWireCore::ReadPhy(const NodeKey& key, std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                    std::uint32_t* value) {
    UniqueLock lock(m_mutex);
    std::uint32_t status = HAL_OK;
    for (int i = 0; i < m_timings.phyTries; ++i) {
        std::optional<std::uint32_t> answer;
        status = AskPhy(lock, key, page, port, address, &answer);
        if (status == HAL_OK && answer) {
            *value = *answer;
            return HAL_OK;
        }
        if (status != HAL_OK && status != HAL_BUS_CHANGED) {
            return status;
        }
    }
    // A PHY older than IEEE 1394a-2000 knows no remote access.
    return status == HAL_OK ? static_cast<std::uint32_t>(HAL_TIMED_OUT) : static_cast<std::uint32_t>(HAL_BUSY);
}

// Sends one remote access packet and waits for the reply.
// @return HAL_OK, with or without a value; HAL_BUS_CHANGED when the packet was not sent because of a reset.
std::uint32_t FireWireCore::AskPhy(UniqueLock& lock, const NodeKey& key, std::uint32_t page, std::uint32_t port,
                                   std::uint32_t address, std::optional<std::uint32_t>* value) {
    // Node and controller must speak of the same generation, or the node's number is another's.
    RefreshCard(key.card);
    m_monitor.Wake();
    Node* node = nullptr;
    Node* local = nullptr;
    std::uint32_t status = FindUsable(key, &node);
    if (status == HAL_OK) {
        status = FindUsableLocal(key.card, &local);
    }
    if (status != HAL_OK) {
        return status;
    }
    if (node->ids.generation != local->ids.generation) {
        return Pause(lock, m_timings.generationPause) ? HAL_BUS_CHANGED : HAL_CLOSED;
    }
    if (!local->receivesPhyPackets) {
        if (const int error = local->file->ReceivePhyPackets()) {
            return StatusOfFile(error);
        }
        local->receivesPhyPackets = true;
    }
    const PhyPackets packets = RemoteAccess(PhyIdOf(node->ids.node), page, port, address);
    const auto sent = std::make_shared<Answer>();
    sent->token = local->token;
    sent->phyReply = packets.reply;
    const Closure closure = ++m_lastClosure;
    m_answers.emplace(closure, sent);
    const std::shared_ptr<NodeFile> file = local->file;
    const std::uint8_t generation = local->ids.generation;
    int error = 0;
    {
        const UnlockGuard unlocked(m_mutex);
        error = file->SendPhyPacket(packets.request, generation, closure);
    }
    if (error == 0) {
        sent->done.WaitUntil(lock, Clock::now() + m_timings.phyAnswer, [&]() NIMBREL2_REQUIRES(m_mutex) {
            return sent->phyValue || !m_running || (sent->complete && sent->rcode != RCODE_COMPLETE);
        });
    }
    m_answers.erase(closure);
    *value = sent->phyValue;
    if (!m_running) {
        return HAL_CLOSED;
    }
    if (error != 0) {
        return StatusOfFile(error);
    }
    return sent->complete && sent->rcode == RCODE_GENERATION ? HAL_BUS_CHANGED : HAL_OK;
}

// There is no packet that writes a register of another PHY, and the kernel lets nobody write this computer's own.
std::uint32_t FireWireCore::WritePhy() {
    const LockGuard lock(m_mutex);
    return m_running ? HAL_PHY_WRITE_NOT_IMPLEMENTED : HAL_CLOSED;
}

}  // namespace Nimbrel2::Platform::FireWire
