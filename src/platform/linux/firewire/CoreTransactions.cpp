// SPDX-License-Identifier: Apache-2.0
// One register of one node, with retries and time-outs. Any user thread; m_mutex is let go while the node answers.
#include <endian.h>
#include <linux/firewire-cdev.h>
#include <linux/firewire-constants.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/base/Errno.h"
#include "platform/linux/firewire/FireWireCore.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

/// An end of our own, beside the kernel's: the node has left, or its file was given up.
constexpr std::uint32_t Gone = 0x100;

std::uint32_t StatusOfSend(int error) {
    switch (error) {
        case ENODEV:
            return HAL_GONE;
        case EINVAL:
        case EIO:
            return HAL_INVALID_ARGUMENT;  // a length that the node's speed does not carry
        default:
            return StatusOfErrno(error);
    }
}

/// Of an answer that is final.
std::uint32_t StatusOfRcode(std::uint32_t rcode, RequestKind kind) {
    switch (rcode) {
        case RCODE_COMPLETE:
            return HAL_OK;
        case RCODE_ADDRESS_ERROR:
            return HAL_NO_SUCH_REGISTER;
        case RCODE_TYPE_ERROR:
            return kind == RequestKind::WriteQuadlet ? HAL_WRITE_PROTECTED : HAL_REFUSED;
        case RCODE_DATA_ERROR:
            return HAL_REFUSED;
        case Gone:
            return HAL_GONE;
        default:
            return HAL_BAD_ANSWER;
    }
}

bool IsBusy(std::uint32_t rcode) {
    return rcode == RCODE_BUSY || rcode == RCODE_CONFLICT_ERROR || rcode == RCODE_SEND_ERROR;
}

bool IsTimeOut(std::uint32_t rcode) { return rcode == RCODE_CANCELLED || rcode == RCODE_NO_ACK; }

}  // namespace

std::uint32_t FireWireCore::ReadQuadlet(const NodeKey& key, std::uint64_t offset, std::uint32_t* value) {
    if (offset == SerialNumberOffset) {
        return ReadSerialNumber(key, value);
    }
    return Execute(key, {RequestKind::ReadQuadlet, offset, 4, 0}, value);
}

std::uint32_t FireWireCore::WriteQuadlet(const NodeKey& key, std::uint64_t offset, std::uint32_t value) {
    return Execute(key, {RequestKind::WriteQuadlet, offset, 4, value}, nullptr);
}

std::uint32_t FireWireCore::Execute(const NodeKey& key, const Request& request, std::uint32_t* value) {
    UniqueLock lock(m_mutex);
    const TimePoint deadline = Clock::now() + m_timings.transaction;
    int tries = 0;
    while (true) {
        Node* node = nullptr;
        std::uint32_t status = FindUsable(key, &node);
        if (status != HAL_OK) {
            return status;
        }
        const bool isWriteToCamera = request.kind == RequestKind::WriteQuadlet && node->FindCamera() != nullptr;
        if (IsRefused(*node, request)) {
            node->missedSomething = node->missedSomething || isWriteToCamera;
            return HAL_TIMED_OUT;
        }
        const std::uint8_t generation = node->ids.generation;
        const std::uint64_t token = node->token;
        std::shared_ptr<Answer> answer;
        status = Exchange(lock, *node, request, deadline, &answer);
        if (status != HAL_OK && status != HAL_TIMED_OUT) {
            return status;
        }

        const std::uint32_t rcode = status == HAL_TIMED_OUT ? std::uint32_t{RCODE_CANCELLED} : answer->rcode;
        if (IsTimeOut(rcode)) {
            RefreshCard(key.card);  // its reset may not have been read yet
            m_monitor.Wake();
        }
        node = FindByToken(token);  // another may have it, or nobody
        // A reset may have swallowed the answer.
        const bool wasReset = node == nullptr || !IsPresent(*node) || node->ids.generation != generation;
        if (IsTimeOut(rcode) && !wasReset) {
            NoteTimedOut(*node);
            if (isWriteToCamera) {
                // Which register a cycle would write is known to the bus master alone, so each one may be it.
                node->missedSomething = true;
                node->muteRegister = request.offset;
            }
            return HAL_TIMED_OUT;
        }
        if (rcode == RCODE_GENERATION || IsTimeOut(rcode)) {
            status = CatchUp(lock, key, generation);
            if (status != HAL_OK) {
                return status;
            }
            if (Clock::now() >= deadline) {
                return HAL_BUSY;
            }
            continue;
        }
        if (IsBusy(rcode)) {
            if (++tries > m_timings.busyTries || Clock::now() + m_timings.busyPause >= deadline) {
                return HAL_BUSY;
            }
            if (!Pause(lock, m_timings.busyPause)) {
                return HAL_CLOSED;
            }
            continue;
        }
        if (node != nullptr) {
            NoteAnswered(*node, request.offset);
        }
        status = StatusOfRcode(rcode, request.kind);
        if (status != HAL_OK || value == nullptr) {
            return status;
        }
        if (answer->payload.size() < sizeof *value) {
            return HAL_BAD_ANSWER;
        }
        std::memcpy(value, answer->payload.data(), sizeof *value);
        *value = be32toh(*value);
        return HAL_OK;
    }
}

// Sends a request on the node's own file, with the generation that this file has told, and waits for its end.
// @return HAL_OK with an answer that is complete, HAL_TIMED_OUT without, or why it could not be sent.
std::uint32_t FireWireCore::Exchange(UniqueLock& lock, Node& node, const Request& request, TimePoint deadline,
                                     std::shared_ptr<Answer>* answer) {
    const auto waiting = std::make_shared<Answer>();
    waiting->token = node.token;
    waiting->payload.reserve(request.length);
    const Closure closure = ++m_lastClosure;
    m_answers.emplace(closure, waiting);
    int error = 0;
    {
        const std::shared_ptr<NodeFile> file = node.file;
        const std::uint8_t generation = node.ids.generation;
        const UnlockGuard unlocked(m_mutex);
        error = file->Send(request, generation, closure);
    }
    if (error != 0) {
        m_answers.erase(closure);
        return StatusOfSend(error);
    }
    deadline = std::min(deadline, Clock::now() + m_timings.answer);
    waiting->done.WaitUntil(lock, deadline,
                            [&]() NIMBREL2_REQUIRES(m_mutex) { return waiting->complete || !m_running; });
    m_answers.erase(closure);
    if (!waiting->complete) {
        return m_running ? HAL_TIMED_OUT : HAL_CLOSED;
    }
    *answer = waiting;
    return HAL_OK;
}

// The bus has another generation than the request had. Only the node's own file may tell the new one: a file that
// stays behind while the bus goes on belongs to a node that has left.
// @return HAL_OK when it is worth another try.
std::uint32_t FireWireCore::CatchUp(UniqueLock& lock, const NodeKey& key, std::uint8_t generation) {
    const TimePoint deadline = Clock::now() + m_timings.generationWait;
    while (true) {
        RefreshCard(key.card);
        m_monitor.Wake();
        Node* node = nullptr;
        const std::uint32_t status = FindUsable(key, &node);
        if (status != HAL_OK || node->ids.generation != generation) {
            return status;
        }
        if (Clock::now() >= deadline) {
            // Whether it has left cannot be told without the controller's own file.
            const Node* local = FindLocal(key.card);
            return local != nullptr && local->IsOpen() ? HAL_BUSY : HAL_GONE;
        }
        if (!Pause(lock, m_timings.generationPause)) {
            return HAL_CLOSED;
        }
    }
}

// @return false when the driver has been stopped.
bool FireWireCore::Pause(UniqueLock& lock, Milliseconds time) {
    const TimePoint deadline = Clock::now() + time;
    m_changed.WaitUntil(lock, deadline, [&]() NIMBREL2_REQUIRES(m_mutex) { return !m_running; });
    return m_running;
}

void FireWireCore::Complete(Closure closure, std::uint32_t rcode, std::span<const std::uint8_t> payload) {
    const auto found = m_answers.find(closure);
    if (found == m_answers.end()) {
        return;  // nobody waits any more
    }
    const std::shared_ptr<Answer> answer = found->second;
    answer->complete = true;
    answer->rcode = rcode;
    // No more than there is room for, which takes no memory.
    const std::size_t size = std::min(payload.size(), answer->payload.capacity());
    answer->payload.assign(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(size));
    if (answer->purpose == Purpose::Caller) {
        answer->done.NotifyAll();
        return;
    }
    m_answers.erase(found);
    FinishReading(*answer);
}

// Ends everything that waits for the answer of a node that has left, or whose file is no more.
void FireWireCore::CompleteAll(std::uint64_t token) {
    for (auto next = m_answers.begin(); next != m_answers.end();) {
        const auto current = next++;
        if (current->second->token == token) {
            Complete(current->first, Gone, {});
        }
    }
}

// What is not sent, for it would make its caller wait in vain.
bool FireWireCore::IsRefused(const Node& node, const Request& request) {
    if (node.mute) {
        return Clock::now() < node.quietUntil;
    }
    return request.kind == RequestKind::WriteQuadlet && request.offset == node.muteRegister;
}

// A camera that was mute may have missed that its transmission was switched on again: then everybody enumerates anew.
void FireWireCore::NoteAnswered(Node& node, std::uint64_t offset) {
    node.owedSince.reset();
    const bool wasMuteRegister = node.muteRegister == offset;
    if (!node.mute && !wasMuteRegister) {
        return;
    }
    node.mute = false;
    if (wasMuteRegister) {
        node.muteRegister.reset();
    }
    if (node.muteRegister) {
        // It answers; whether that register does too is to be seen before anybody writes there again.
        node.nextProbe = Clock::now();
        m_monitor.Wake();
        return;
    }
    node.probePause = Milliseconds(0);
    if (std::exchange(node.missedSomething, false)) {
        HaveUsersEnumerate();
    }
}

void FireWireCore::HaveUsersEnumerate() {
    m_otherChange = true;
    NoteChange(false);
    m_monitor.Wake();
}

void FireWireCore::NoteTimedOut(Node& node) {
    node.mute = true;
    node.quietUntil = Clock::now() + m_timings.quietAfterTimeOut;
    node.owedSince.reset();
    PauseProbes(node);
    m_monitor.Wake();
}

void FireWireCore::PauseProbes(Node& node) const {
    node.probePause = std::clamp(2 * node.probePause, m_timings.quietAfterTimeOut, m_timings.probePauseMax);
    node.nextProbe = Clock::now() + node.probePause;
}

}  // namespace Nimbrel2::Platform::FireWire
