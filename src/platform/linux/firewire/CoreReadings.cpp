// SPDX-License-Identifier: Apache-2.0
// What is read from all nodes of a kind at once, before anybody asks: the serial numbers of cameras, and self-IDs.
// Sent and finished by the monitor, or by the first thread that asks; m_mutex is let go while nodes answer.
#include <endian.h>
#include <linux/firewire-constants.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/base/SelfIds.h"
#include "platform/linux/firewire/FireWireCore.h"
#include "platform/linux/firewire/TopologyMap.h"

namespace Nimbrel2::Platform::FireWire {

// A cycle of the bus master asks one camera after the other, and the kernel waits for two seconds for one that is mute:
// what a cycle would ask is read from all of them at once. A camera that is known to be mute makes nobody wait; the
// monitor finds out when it answers again.
std::uint32_t FireWireCore::ReadSerialNumber(const NodeKey& key, std::uint32_t* value) {
    {
        UniqueLock lock(m_mutex);
        const TimePoint deadline = Clock::now() + m_timings.transaction;
        bool asked = false;
        while (true) {
            Node* node = nullptr;
            const std::uint32_t status = FindUsable(key, &node);
            if (status != HAL_OK) {
                return status;
            }
            if (node->FindCamera() == nullptr) {
                break;
            }
            const auto& reading = node->serialNumber;
            if (IsFresh(*node, Clock::now())) {
                *value = reading.value;
                return reading.status;
            }
            if (node->mute) {
                node->missedSomething = true;
                return HAL_TIMED_OUT;
            }
            if (reading.state == State::Asked) {
                if (!m_changed.WaitUntil(lock, deadline)) {
                    return HAL_TIMED_OUT;
                }
                continue;
            }
            // Whatever came of it: the rest is this camera's alone.
            if (asked) {
                break;
            }
            asked = true;
            ReadSerialNumbers();
        }
    }
    return Execute(key, {RequestKind::ReadQuadlet, SerialNumberOffset, 4, 0}, value);
}

bool FireWireCore::IsFresh(const Node& node, TimePoint now) const {
    const auto& reading = node.serialNumber;
    return reading.state == State::Done && reading.generation == node.ids.generation &&
           now - reading.at <= m_timings.readingLifetime;
}

// Asks every camera that could answer and has not just done so.
void FireWireCore::ReadSerialNumbers() {
    const TimePoint now = Clock::now();
    for (auto& [name, node] : m_nodes) {
        if (node.FindCamera() == nullptr || !node.IsOpen() || !IsPresent(node)) {
            continue;
        }
        if ((node.mute && now < node.quietUntil) || IsFresh(node, now)) {
            continue;
        }
        const bool isAsked =
            node.serialNumber.state == State::Asked && node.serialNumber.generation == node.ids.generation;
        if (!isAsked) {
            AskSerialNumber(node);
        }
    }
    m_monitor.Wake();  // it sees to those that are never answered
}

void FireWireCore::AskSerialNumber(Node& node) {
    const Request request{RequestKind::ReadQuadlet, SerialNumberOffset, 4, 0};
    const TimePoint now = Clock::now();
    const bool isAsked = Ask(node, Purpose::SerialNumber, request) == 0;
    node.serialNumber = {isAsked ? State::Asked : State::None, node.ids.generation, now, HAL_OK, 0};
    // A bus that is reset before the kernel gives up a mute camera must not keep that from being noticed.
    if (isAsked && !node.owedSince) {
        node.owedSince = now;
    }
}

// Of each bus whose tree may be seen, and is not known as it is now.
void FireWireCore::AskMissingSelfIds() {
    for (auto& [path, card] : m_cards) {
        const bool isOfNow = card.selfIds.generation == card.ids.generation && card.selfIds.state != State::None;
        Node* local = nullptr;
        if (!isOfNow && FindUsableLocal(path, &local) == HAL_OK) {
            AskSelfIds(*local, card);
        }
    }
}

void FireWireCore::AskSelfIds(Node& local, Card& card) {
    const Request request{RequestKind::ReadBlock, TopologyMapOffset, TopologyMapBytes, 0};
    const int error = Ask(local, Purpose::SelfIds, request);
    card.selfIds = {error == 0 ? State::Asked : State::None, local.ids.generation, Clock::now(), HAL_OK, {}};
    m_monitor.Wake();
}

// Sends a request whose answer nobody waits for by itself. @return 0 or an errno.
int FireWireCore::Ask(Node& node, Purpose purpose, const Request& request) {
    const auto answer = std::make_shared<Answer>();
    answer->purpose = purpose;
    answer->token = node.token;
    answer->generation = node.ids.generation;
    const TimePoint now = Clock::now();
    answer->owedSince = purpose == Purpose::SerialNumber ? node.owedSince.value_or(now) : now;
    answer->payload.reserve(request.length);
    const Closure closure = ++m_lastClosure;
    m_answers.emplace(closure, answer);
    const int error = node.file->Send(request, node.ids.generation, closure);
    if (error != 0) {
        m_answers.erase(closure);
    }
    return error;
}

void FireWireCore::FinishReading(const Answer& answer) {
    m_changed.NotifyAll();
    Node* node = FindByToken(answer.token);
    if (node == nullptr) {
        return;
    }
    if (answer.purpose == Purpose::SelfIds) {
        FinishSelfIds(*node, answer);
    } else if (answer.purpose == Purpose::Register) {
        FinishRegister(*node, answer);
    } else {
        FinishSerialNumber(*node, answer);
    }
}

void FireWireCore::FinishSerialNumber(Node& node, const Answer& answer) {
    auto& reading = node.serialNumber;
    const bool isTheLast = reading.state == State::Asked && reading.generation == answer.generation;
    if (isTheLast) {
        reading.state = State::None;
    }
    if (answer.rcode == RCODE_CANCELLED && isTheLast) {
        // A reset may have swallowed the answer to an older one, but not for ever.
        const bool isOfNow = node.ids.generation == answer.generation;
        if (isOfNow || Clock::now() >= answer.owedSince + m_timings.answer) {
            NoteTimedOut(node);
        } else if (IsPresent(node)) {
            AskSerialNumber(node);
        }
    }
    if (answer.rcode != RCODE_CANCELLED && answer.rcode != RCODE_GENERATION) {
        node.owedSince.reset();
    }
    // What nobody acknowledges comes back at once: whoever needs it asks again.
    if (answer.rcode != RCODE_COMPLETE || answer.payload.size() < sizeof reading.value) {
        return;
    }
    NoteAnswered(node, SerialNumberOffset);
    if (!isTheLast) {
        return;
    }
    std::memcpy(&reading.value, answer.payload.data(), sizeof reading.value);
    reading.value = be32toh(reading.value);
    reading.state = State::Done;
    reading.status = HAL_OK;
    reading.at = Clock::now();
}

void FireWireCore::FinishRegister(Node& node, const Answer& answer) {
    if (!node.muteRegister || node.mute) {
        return;
    }
    switch (answer.rcode) {
        case RCODE_COMPLETE:
        case RCODE_TYPE_ERROR:
        case RCODE_DATA_ERROR:
        case RCODE_ADDRESS_ERROR:
            NoteAnswered(node, *node.muteRegister);
            break;
        case RCODE_CANCELLED:
            PauseProbes(node);
            break;
        default:
            node.nextProbe = Clock::now() + m_timings.quietAfterTimeOut;
    }
}

void FireWireCore::FinishSelfIds(const Node& local, const Answer& answer) {
    Card& card = m_cards[local.key.card];
    auto& reading = card.selfIds;
    if (reading.state != State::Asked || reading.generation != answer.generation) {
        return;
    }
    reading.state = State::None;
    if (answer.rcode != RCODE_COMPLETE) {
        return;  // the bus was reset meanwhile, or is busy: whoever needs them asks again
    }
    std::vector<SelfIdPacket_t> packets;
    reading.status = ParseTopologyMap(answer.payload, &packets);
    if (reading.status == HAL_OK && card.ids.generation == reading.generation) {
        KeepSelfIds(card, packets);
    }
    reading.value = std::move(packets);
    reading.state = State::Done;
    reading.at = Clock::now();
}

// What differs from the stream before tells in which sockets cables come and go.
void FireWireCore::KeepSelfIds(Card& card, const std::vector<SelfIdPacket_t>& packets) {
    auto phys = DecodeSelfIds(packets);
    if (!phys) {
        return;
    }
    const unsigned int local = card.ids.local & 0x3F;
    const TimePoint now = Clock::now();
    for (Socket& socket : FindPortChanges(card.phys, card.local, *phys, local)) {
        card.portChanges.emplace_back(now, std::move(socket));
    }
    while (!card.portChanges.empty() && now - card.portChanges.front().first > m_timings.history) {
        card.portChanges.pop_front();
    }
    card.phys = std::move(*phys);
    card.local = local;
}

// The kernel ends every request by itself; this is for the case that it does not. An answer that is there and only has
// not been read yet, for this computer is busy, is not late.
void FireWireCore::EndLateReadings(TimePoint now) {
    for (auto next = m_answers.begin(); next != m_answers.end();) {
        const auto current = next++;
        const Answer& answer = *current->second;
        if (answer.purpose == Purpose::Caller || now < answer.owedSince + m_timings.answer) {
            continue;
        }
        const Node* node = FindByToken(answer.token);
        if (node == nullptr || !node->file->HasEvent()) {
            Complete(current->first, RCODE_CANCELLED, {});
        }
    }
}

void FireWireCore::ProbeMuteNodes(TimePoint now) {
    for (auto& [name, node] : m_nodes) {
        if (!IsProbed(node) || now < node.nextProbe) {
            continue;
        }
        // Whatever comes of it, the next one is not before its time.
        node.nextProbe = now + std::max(node.probePause, m_timings.quietAfterTimeOut);
        if (node.mute) {
            AskSerialNumber(node);
        } else if (Ask(node, Purpose::Register, {RequestKind::ReadQuadlet, *node.muteRegister, 4, 0}) == 0) {
            node.nextProbe = TimePoint::max();  // its answer tells when
        }
    }
}

bool FireWireCore::IsProbed(const Node& node) {
    if (node.FindCamera() == nullptr || !node.IsOpen() || !IsPresent(node)) {
        return false;
    }
    return node.mute ? node.serialNumber.state != State::Asked : node.muteRegister.has_value();
}

}  // namespace Nimbrel2::Platform::FireWire
