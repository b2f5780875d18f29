// SPDX-License-Identifier: Apache-2.0
// Whose turn it is to hold the callback mutex: calls of user functions and registrars, one at a time. Internal.
#ifndef NIMBREL2_BUSMASTER_CALLBACKTURNS_H
#define NIMBREL2_BUSMASTER_CALLBACKTURNS_H

#include <boost/intrusive/list.hpp>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>

namespace Nimbrel2 {

/// Hands out turns. Calls get theirs in the order in which they were queued. A registrar goes before every queued call,
/// but after one registrar one call has its turn, so neither starves. A turn is passed on to a waiter directly: nobody
/// who comes later can snatch it.
/// @par Threads  Any. A leaf mutex for a few instructions; nobody allocates memory.
class CallbackTurns {
public:
    /// One place in the queue of calls or of registrars. Stays where it is while it is queued.
    class Place : public boost::intrusive::list_base_hook<> {
    private:
        friend class CallbackTurns;
        enum class State { Queued, Granted, Withdrawn };

        State state = State::Queued;
        const void* owner = nullptr;
        std::condition_variable changed;  // Not Boost's: a wait that is interrupted would leave the place queued.
    };

    CallbackTurns() = default;
    CallbackTurns(const CallbackTurns&) = delete;
    CallbackTurns& operator=(const CallbackTurns&) = delete;

    /// Queues a call before there is a thread for it. Never waits.
    /// @param owner  What Withdraw will name.
    void QueueCall(Place& call, const void* owner);
    /// Waits for the turn of a queued call.
    /// @return false when the call was withdrawn: it has no turn and ends.
    bool WaitForCall(Place& call);
    /// Takes back a queued call whose thread could not be made.
    void CancelCall(Place& call);

    /// Ends the wait of every queued call of an owner. A call that has its turn keeps it.
    void Withdraw(const void* owner);
    void WithdrawAll();

    /// @return false, at once, when somebody else has the turn.
    bool TryTake();
    void Take();
    /// @return false when the turn did not come in time.
    bool TakeWithin(std::chrono::microseconds time);

    /// Ends the turn that the caller has.
    void PassOn();

    std::size_t CountQueuedCalls() const;
    std::size_t CountWaitingRegistrars() const;

private:
    using Queue = boost::intrusive::list<Place>;
    using Lock = std::unique_lock<std::mutex>;
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    bool TakeUntil(const Deadline& deadline);

    // With m_mutex held.
    bool TryTakeLocked();
    void Grant(Queue& queue);
    void PassOnLocked();
    static void Unlink(Queue& queue, Place& place);

    mutable std::mutex m_mutex;  // Guards everything below, and the state of every queued place.
    bool m_taken = false;
    bool m_registrarWasLast = false;  // The latest turn was a registrar's: a queued call goes next.
    Queue m_calls;
    Queue m_registrars;
};

}  // namespace Nimbrel2

#endif
