// SPDX-License-Identifier: Apache-2.0
// Queues for the callback mutex. Any thread; its own leaf mutex is held for a few instructions, never across a wait.
// Everybody is woken with that mutex held, so a waiter that goes on may destroy its place at once.
#include "busmaster/CallbackTurns.h"

namespace Nimbrel2 {

void CallbackTurns::QueueCall(Place& call, const void* owner) {
    const Lock lock(m_mutex);
    call.owner = owner;
    m_calls.push_back(call);
    if (!m_taken) {
        PassOnLocked();
    }
}

bool CallbackTurns::WaitForCall(Place& call) {
    Lock lock(m_mutex);
    call.changed.wait(lock, [&call] { return call.state != Place::State::Queued; });
    return call.state == Place::State::Granted;
}

void CallbackTurns::CancelCall(Place& call) {
    const Lock lock(m_mutex);
    if (call.state == Place::State::Queued) {
        Unlink(m_calls, call);
    } else if (call.state == Place::State::Granted) {
        PassOnLocked();
    }
}

void CallbackTurns::Withdraw(const void* owner) {
    const Lock lock(m_mutex);
    for (auto place = m_calls.begin(); place != m_calls.end();) {
        Place& call = *place++;
        if (owner == nullptr || call.owner == owner) {
            Unlink(m_calls, call);
            call.state = Place::State::Withdrawn;
            call.changed.notify_one();
        }
    }
}

void CallbackTurns::WithdrawAll() { Withdraw(nullptr); }

bool CallbackTurns::TryTake() {
    const Lock lock(m_mutex);
    return TryTakeLocked();
}

void CallbackTurns::Take() { TakeUntil(std::nullopt); }

bool CallbackTurns::TakeWithin(std::chrono::microseconds time) {
    return TakeUntil(std::chrono::steady_clock::now() + time);
}

bool CallbackTurns::TakeUntil(const Deadline& deadline) {
    Place registrar;
    Lock lock(m_mutex);
    if (TryTakeLocked()) {
        return true;
    }
    m_registrars.push_back(registrar);
    const auto isGranted = [&registrar] { return registrar.state == Place::State::Granted; };
    if (!deadline) {
        registrar.changed.wait(lock, isGranted);
    } else if (!registrar.changed.wait_until(lock, *deadline, isGranted)) {
        Unlink(m_registrars, registrar);
        return false;
    }
    return true;
}

void CallbackTurns::PassOn() {
    const Lock lock(m_mutex);
    PassOnLocked();
}

std::size_t CallbackTurns::CountQueuedCalls() const {
    const Lock lock(m_mutex);
    return m_calls.size();
}

std::size_t CallbackTurns::CountWaitingRegistrars() const {
    const Lock lock(m_mutex);
    return m_registrars.size();
}

bool CallbackTurns::TryTakeLocked() {
    // Nobody waits while the turn is free: whoever ended the last one would have passed it on.
    if (m_taken) {
        return false;
    }
    m_taken = true;
    m_registrarWasLast = true;
    return true;
}

void CallbackTurns::PassOnLocked() {
    m_taken = false;
    if (!m_registrars.empty() && (!m_registrarWasLast || m_calls.empty())) {
        m_registrarWasLast = true;
        Grant(m_registrars);
    } else if (!m_calls.empty()) {
        m_registrarWasLast = false;
        Grant(m_calls);
    }
}

void CallbackTurns::Grant(Queue& queue) {
    Place& next = queue.front();
    queue.pop_front();
    m_taken = true;
    next.state = Place::State::Granted;
    next.changed.notify_one();
}

void CallbackTurns::Unlink(Queue& queue, Place& place) { queue.erase(queue.iterator_to(place)); }

}  // namespace Nimbrel2
