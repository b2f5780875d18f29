// SPDX-License-Identifier: Apache-2.0
// Commands that wait for their acknowledge: who may answer each, and what has come.
// Any thread. One leaf lock, never held while waiting. A thread that waits for an answer reads the socket itself when
// nobody else does, so that an answer wakes the thread that wants it and no other; the monitor reads otherwise.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_PENDINGREPLIES_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_PENDINGREPLIES_H

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include "platform/base/Poller.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/Timings.h"
#include "platform/linux/gige/UdpPort.h"

namespace Nimbrel2::Platform::GigE {

/// What has come for a command.
struct ReplyNews {
    bool answered = false;
    bool malformed = false;  ///< something came from the right address with the right id, and could not be read
    TimePoint pendingUntil;  ///< what a pending acknowledge has asked for; the epoch without one
    Gvcp::Status status{};
    std::uint32_t value = 0;  ///< READREG: the register; WRITEREG: how many were written
};

/// One command. Fill it, then Add.
struct PendingReply {
    std::uint16_t id = 0;
    int interface = 0;       ///< that the answer must come in on; 0 for any
    std::uint32_t from = 0;  ///< the address that must answer
    Gvcp::MessageId acknowledge{};
    TimePoint limit;  ///< pending acknowledges are honoured up to here

private:
    friend class PendingReplies;
    // Another thread may be writing it: Wait and Remove tell what is in it.
    ReplyNews m_said;
    std::condition_variable m_news;
    const UdpPort* m_waitsBehind = nullptr;  ///< the port that another thread reads for it
};

class PendingReplies {
public:
    PendingReplies(Poller& poller, int stopFd) : m_poller(poller), m_stopFd(stopFd) {}

    void Add(PendingReply& reply);

    /// After this nothing touches the reply. @return what has come for it in the end.
    ReplyNews Remove(PendingReply& reply);

    /// Waits until the reply was answered, a pending acknowledge came for it, Close was called or the deadline has
    /// come.
    /// @param port  Where to read meanwhile; null leaves that to the monitor.
    /// @return what has come so far.
    ReplyNews Wait(PendingReply& reply, UdpPort* port, TimePoint deadline, DatagramHandler& handler);

    /// One acknowledge other than of DISCOVERY. What nobody waits for is dropped.
    void Deliver(int interface, std::uint32_t from, const Gvcp::DecodedAcknowledge& acknowledge, TimePoint now);

    /// Ends every Wait, at once and for ever.
    void Close();
    bool IsClosed();

private:
    void ReadFor(PendingReply& reply, UdpPort& port, TimePoint deadline, DatagramHandler& handler,
                 std::unique_lock<std::mutex>& lock);
    void HandOver(UdpPort& port);

    Poller& m_poller;
    const int m_stopFd;
    std::mutex m_mutex;  ///< guards all below, every PendingReply that was added, and UdpPort::beingRead
    std::map<std::uint16_t, PendingReply*> m_replies;
    bool m_closed = false;
};

/// The poller's token of a port.
std::uint64_t TokenOf(const UdpPort& port);

}  // namespace Nimbrel2::Platform::GigE

#endif
