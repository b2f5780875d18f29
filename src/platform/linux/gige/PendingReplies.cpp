// SPDX-License-Identifier: Apache-2.0
// Commands that wait for their acknowledge. Any thread; one leaf lock, never held while waiting.
#include "platform/linux/gige/PendingReplies.h"

#include <algorithm>

namespace Nimbrel2::Platform::GigE {

namespace {

// A flood must not keep a waiting thread from looking at its deadline.
constexpr std::size_t kReadBudget = 64;

bool IsMore(const ReplyNews& said, TimePoint knownPending) {
    return said.answered || said.pendingUntil != knownPending;
}

// What the acknowledge of one READREG, WRITEREG or FORCEIP says; false when it is no such acknowledge.
bool ReadInto(ReplyNews& said, const Gvcp::DecodedAcknowledge& acknowledge) {
    said.status = acknowledge.header.status;
    if (std::holds_alternative<Gvcp::ErrorAcknowledge>(acknowledge.body)) return true;
    if (std::holds_alternative<Gvcp::ForceIpAcknowledge>(acknowledge.body)) return true;
    if (const auto* read = std::get_if<Gvcp::ReadRegAcknowledge>(&acknowledge.body)) {
        if (read->values.GetCount() != 1) return false;
        said.value = read->values[0];
        return true;
    }
    if (const auto* write = std::get_if<Gvcp::WriteRegAcknowledge>(&acknowledge.body)) {
        said.value = write->index;
        return true;
    }
    return false;
}

}  // namespace

std::uint64_t TokenOf(const UdpPort& port) { return static_cast<std::uint64_t>(port.GetInterface()); }

void PendingReplies::Add(PendingReply& reply) {
    std::lock_guard lock(m_mutex);
    m_replies[reply.id] = &reply;
}

ReplyNews PendingReplies::Remove(PendingReply& reply) {
    std::lock_guard lock(m_mutex);
    m_replies.erase(reply.id);
    return reply.m_said;
}

ReplyNews PendingReplies::Wait(PendingReply& reply, UdpPort* port, TimePoint deadline, DatagramHandler& handler) {
    std::unique_lock lock(m_mutex);
    const TimePoint knownPending = reply.m_said.pendingUntil;
    while (!IsMore(reply.m_said, knownPending) && !m_closed && Clock::now() < deadline) {
        if (port != nullptr && !port->beingRead) {
            ReadFor(reply, *port, deadline, handler, lock);
            return reply.m_said;
        }
        reply.m_waitsBehind = port;
        reply.m_news.wait_until(lock, deadline);
        reply.m_waitsBehind = nullptr;
    }
    // It may have been woken to read on, and leaves: somebody else must.
    if (port != nullptr && !port->beingRead) HandOver(*port);
    return reply.m_said;
}

void PendingReplies::ReadFor(PendingReply& reply, UdpPort& port, TimePoint deadline, DatagramHandler& handler,
                             std::unique_lock<std::mutex>& lock) {
    const TimePoint knownPending = reply.m_said.pendingUntil;
    port.beingRead = true;
    m_poller.Pause(port.GetFd(), TokenOf(port));
    while (!IsMore(reply.m_said, knownPending) && !m_closed && Clock::now() < deadline) {
        lock.unlock();
        port.WaitReadable(deadline, m_stopFd);
        port.Drain(kReadBudget, handler);
        lock.lock();
    }
    port.beingRead = false;
    HandOver(port);
}

void PendingReplies::HandOver(UdpPort& port) {
    const auto next = std::find_if(m_replies.begin(), m_replies.end(),
                                   [&](const auto& entry) { return entry.second->m_waitsBehind == &port; });
    if (next != m_replies.end()) {
        next->second->m_news.notify_one();
    } else {
        m_poller.Resume(port.GetFd(), TokenOf(port));
    }
}

void PendingReplies::Deliver(int interface, std::uint32_t from, const Gvcp::DecodedAcknowledge& acknowledge,
                             TimePoint now) {
    std::lock_guard lock(m_mutex);
    const auto found = m_replies.find(acknowledge.header.ackId);
    if (found == m_replies.end()) return;
    PendingReply& reply = *found->second;
    if (reply.m_said.answered || from != reply.from || (reply.interface != 0 && interface != reply.interface)) return;

    if (const auto* pending = std::get_if<Gvcp::PendingAcknowledge>(&acknowledge.body)) {
        reply.m_said.pendingUntil = std::min(now + Milliseconds(pending->timeToCompletion), reply.limit);
        reply.m_news.notify_one();
        return;
    }
    if (acknowledge.header.id != reply.acknowledge) return;
    if (acknowledge.error != Gvcp::DecodeError::None || !ReadInto(reply.m_said, acknowledge)) {
        reply.m_said.malformed = true;
        return;
    }
    reply.m_said.answered = true;
    reply.m_news.notify_one();
}

void PendingReplies::Close() {
    std::lock_guard lock(m_mutex);
    m_closed = true;
    for (const auto& entry : m_replies) entry.second->m_news.notify_one();
}

bool PendingReplies::IsClosed() {
    std::lock_guard lock(m_mutex);
    return m_closed;
}

}  // namespace Nimbrel2::Platform::GigE
