// SPDX-License-Identifier: Apache-2.0
// The registry of user callbacks, and the threads that call them.
// Registration runs on client threads, signalling on the worker, each user function on a detached thread of its own.
// A user function runs with m_callbackMutex held and may want m_busMasterMutex for a look-up. So whoever holds
// m_busMasterMutex only tries m_callbackMutex, and lets the main lock go before it waits. m_callbackTurns says who has
// m_callbackMutex next, so that a registrar waits for one callback and not for all that are queued; and the worker lets
// registrars pass before it begins a cycle, so that they wait for one cycle and not for a storm of them.
#include <memory>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"

namespace Nimbrel2 {

namespace {

using Lock = boost::unique_lock<boost::mutex>;

// The callback mutex that this thread holds while it runs a user function.
thread_local const boost::mutex* t_runningUnder = nullptr;

Error InsideCallbackError() {
    // 35 is EDEADLK: waiting for this thread's own callback would never end.
    return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE,
                          "Callbacks cannot be registered or unregistered from inside a callback. System error: 35.");
}

void CallUser(void (*function)(void*, unsigned int), void* data, unsigned int parameter) {
    if (function == nullptr) {
        return;
    }
    try {
        function(data, parameter);
    } catch (...) {
        TraceLine("A user callback threw an exception.");
    }
}

}  // namespace

// The main lock, the turn and the callback mutex together, as a registrar needs them.
class NIMBREL2_INTERNAL BusMaster::RegistryLock {
public:
    explicit RegistryLock(Members& members)
        : m_members(members),
          m_busMasterLock(members.m_busMasterMutex, boost::defer_lock),
          m_callbackLock(members.m_callbackMutex, boost::defer_lock) {}

    ~RegistryLock() {
        UnlockIfHeld(m_callbackLock);
        UnlockIfHeld(m_busMasterLock);
        if (m_hasTurn) {
            m_members.m_callbackTurns.PassOn();  // last, so that who comes next finds the mutex free
        }
    }

    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;

    // Never waits for a callback with the main lock held. check runs under the main lock, again after it had to be let
    // go; everything is held when this returns ERROR_OK.
    template <class Check>
    Error Take(Check check) {
        if (m_members.IsInForkedProcess()) {
            return check();  // without a lock, for it finds nothing initialised
        }
        if (m_busMasterLock.try_lock()) {
            Error error = check();
            if (error != ERROR_OK || TryRegistry()) {
                return error;
            }
            m_busMasterLock.unlock();
        }
        // The turn first, also while a cycle runs: what that cycle signals comes after this registrar then.
        if (!m_hasTurn) {
            m_members.m_callbackTurns.Take();
            m_hasTurn = true;
        }
        m_callbackLock.lock();
        m_members.LockMainBeforeNextCycle(m_busMasterLock);
        return check();
    }

private:
    bool TryRegistry() {
        m_hasTurn = m_members.m_callbackTurns.TryTake();
        return m_hasTurn && m_callbackLock.try_lock();
    }

    Members& m_members;
    bool m_hasTurn = false;
    Lock m_busMasterLock;
    Lock m_callbackLock;
};

Error BusMaster::RegisterCallback(void (*function)(void*, unsigned int), BusCallbackType type, void* data,
                                  void** handle) {
    return WithoutExceptions([&]() -> Error {
        Members& members = *m_members;
        if (members.IsInsideCallback()) {
            return InsideCallbackError();
        }
        RegistryLock registry(members);
        Members::CallbackList* list = nullptr;
        const Error error = registry.Take([&]() -> Error {
            if (handle == nullptr) {
                return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid callback handle address.");
            }
            if (!members.GetInitialized()) {
                return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED, "Object not initialized.");
            }
            switch (type) {
                case ARRIVAL:
                    list = &members.m_arrivalCallbacks;
                    break;
                case REMOVAL:
                    list = &members.m_removalCallbacks;
                    break;
                case BUS_RESET:
                    list = &members.m_busResetCallbacks;
                    break;
                default:
                    return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid callback type.");
            }
            return InternalError(ERROR_OK);
        });
        if (error != ERROR_OK) {
            return error;
        }
        auto record = std::make_unique<CallbackData>();
        record->fn = function;
        record->data = data;
        record->number = ++members.m_registrations;
        list->push_back(record.get());
        try {
            members.m_callbackSet.insert(record.get());
        } catch (...) {
            list->pop_back();
            throw;
        }
        *handle = record.release();
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::UnregisterCallback(void* handle) {
    return WithoutExceptions([&]() -> Error {
        Members& members = *m_members;
        if (members.IsInsideCallback()) {
            return InsideCallbackError();
        }
        RegistryLock registry(members);
        const Error error = registry.Take([&]() -> Error {
            if (!members.GetInitialized()) {
                return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED, "Object not initialized.");
            }
            if (handle == nullptr) {
                return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid callback handle.");
            }
            return InternalError(ERROR_OK);
        });
        if (error != ERROR_OK) {
            return error;
        }
        auto* record = static_cast<CallbackData*>(handle);
        // The set knows every live record, so an unknown or freed pointer is never read.
        if (members.m_callbackSet.erase(record) == 0) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid callback handle.");
        }
        {
            // Free: only a thread that holds m_callbackMutex takes it. Tried, not waited for, because its holder may
            // wait for the main lock.
            const Lock recordLock(record->mutex, boost::try_to_lock);
            members.m_arrivalCallbacks.remove(record);
            members.m_removalCallbacks.remove(record);
            members.m_busResetCallbacks.remove(record);
        }
        members.m_callbackTurns.Withdraw(record);
        delete record;
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::Members::SignalCallbacks(CallbackList& list, unsigned int parameter) {
    return WithoutExceptions([&]() -> Error {
        if (!GetInitialized()) {
            return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED, "Failed to get initialization status");
        }
        const CallbackList snapshot = list;
        const boost::shared_ptr<Members> self = shared_from_this();
        for (CallbackData* callback : snapshot) {
            auto threadData = std::make_unique<CallbackThreadData>();
            threadData->callback = callback;
            threadData->parameter = parameter;
            threadData->number = callback->number;
            {
                const Lock lock(m_quietMutex);
                ++m_callbacksLeft;
            }
            // Queued before its thread runs, so that it can be withdrawn from here on.
            m_callbackTurns.QueueCall(threadData->place, callback);
            const auto giveUp = [&] {
                m_callbackTurns.CancelCall(threadData->place);
                CallbackEnded();
            };
            try {
                boost::thread thread = StartThread("nimbrel-call", [self, call = threadData.get()] {
                    self->RunCall(std::unique_ptr<CallbackThreadData>(call));
                    self->CallbackEnded();
                });
                threadData.release();
                thread.detach();
            } catch (const boost::thread_resource_error& error) {
                giveUp();
                return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Could not start a callback thread. System error: %d.",
                                      error.native_error());
            } catch (...) {
                giveUp();
                throw;
            }
        }
        return InternalError(ERROR_OK);
    });
}

void BusMaster::Members::RunCall(std::unique_ptr<CallbackThreadData> call) {
    if (m_callbackTurns.WaitForCall(call->place)) {
        SignalCallbackThread(call.release(), m_callbackSet, m_callbackMutex);
        m_callbackTurns.PassOn();
    }
}

void BusMaster::Members::LockMainBeforeNextCycle(Lock& lock) {
    {
        const Lock quietLock(m_quietMutex);
        ++m_registrarsCome;
    }
    lock.lock();
    {
        const Lock quietLock(m_quietMutex);
        ++m_registrarsPassed;
    }
    m_quietCondition.notify_all();
}

void BusMaster::Members::LetRegistrarsPass() {
    const boost::posix_time::ptime deadline = DeadlineIn(GetDeadlines().registrarsPass);
    Lock lock(m_quietMutex);
    // As many as wait now, whoever gets the mutex first: those that come later cannot hold up the worker.
    const std::uint64_t come = m_registrarsCome;
    m_quietCondition.timed_wait(lock, deadline, [this, come] { return m_registrarsPassed >= come; });
}

bool BusMaster::Members::IsInsideCallback() const { return t_runningUnder == &m_callbackMutex && !IsInForkedProcess(); }

void BusMaster::Members::CallbackEnded() {
    {
        const Lock lock(m_quietMutex);
        --m_callbacksLeft;
    }
    m_quietCondition.notify_all();
}

void* BusMaster::SignalCallbackThread(void* threadData, std::set<CallbackData*>& liveSet, boost::mutex& setMutex) {
    const std::unique_ptr<CallbackThreadData> call(static_cast<CallbackThreadData*>(threadData));
    const Lock lock(setMutex);
    // The address alone does not do: a registration that came after the signal may have it now.
    if (liveSet.count(call->callback) != 0 && call->callback->number == call->number) {
        const Lock recordLock(call->callback->mutex);
        t_runningUnder = &setMutex;
        CallUser(call->callback->fn, call->callback->data, call->parameter);
        t_runningUnder = nullptr;
    }
    return nullptr;
}

bool BusMaster::FreeCallbackList(std::list<CallbackData*>* list, std::set<CallbackData*>& liveSet,
                                 boost::mutex& setMutex) {
    if (list == nullptr) {
        return true;
    }
    Lock lock(setMutex, boost::defer_lock);
    if (!TryLockUntil(lock, DeadlineIn(GetDeadlines().lockAtDestruction))) {
        return false;
    }
    while (!list->empty()) {
        CallbackData* record = list->front();
        {
            const Lock recordLock(record->mutex);
            list->pop_front();
            liveSet.erase(record);
        }
        delete record;
    }
    return true;
}

}  // namespace Nimbrel2
