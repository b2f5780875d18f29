// SPDX-License-Identifier: Apache-2.0
// The state of the bus master, with every lock and who takes it. Internal: not installed.
#ifndef NIMBREL2_BUSMASTER_BUSMASTERMEMBERS_H
#define NIMBREL2_BUSMASTER_BUSMASTERMEMBERS_H

#include <boost/enable_shared_from_this.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <map>
#include <memory>

#include "busmaster/BusMaster.h"
#include "busmaster/CallbackTurns.h"
#include "common/Posix.h"

namespace Nimbrel2 {

/// One registration. The handle that the user holds is its address.
struct NIMBREL2_INTERNAL BusMaster::CallbackData {
    /// Null: nothing is called. The destructor sets it so when it cannot wait for a callback that runs.
    std::atomic<void (*)(void*, unsigned int)> fn{nullptr};
    void* data = nullptr;
    boost::mutex mutex;        ///< Held while fn runs and while the record is taken out of the registry.
    std::uint64_t number = 0;  ///< Tells it from a later registration at the same address. Never changes.
};

/// One call to come: made by the signaller, freed by the thread that calls.
struct NIMBREL2_INTERNAL BusMaster::CallbackThreadData {
    CallbackData* callback = nullptr;
    unsigned int parameter = 0;
    std::uint64_t number = 0;  ///< The registration that was signalled.
    CallbackTurns::Place place{};
};

/// Everything a BusMaster owns. Worker, enumeration, signalling and event threads each hold a share of it.
///
/// Lock order, outermost first:
///     m_busMasterMutex  >  m_initConfirmMutex  >  m_initializedMutex  >  m_enumerationMutex
///     a turn of m_callbackTurns  >  m_callbackMutex  >  CallbackData::mutex  >  m_busMasterMutex
///     m_workerIdleMutex >  m_wakeUpMutex
/// A user callback runs with m_callbackMutex held and may take m_busMasterMutex through a look-up, so that is the order
/// in which a registrar waits for them too. Whoever holds m_busMasterMutex already only tries the three before it.
/// m_generationMutex, m_exitThreadMutex, m_quietMutex and m_snapshotMutex are leaves. No lock is held during a user
/// callback but m_callbackMutex and that record's own, and none but those said below during a HAL call.
struct NIMBREL2_INTERNAL BusMaster::Members : boost::enable_shared_from_this<BusMaster::Members> {
    using CallbackList = std::list<CallbackData*>;

    // ---- The registry of callbacks ---------------------------------------------------------------------------------
    boost::mutex m_callbackMutex;           ///< Guards the set, and every record's life while a callback runs.
    std::set<CallbackData*> m_callbackSet;  ///< Every record that is in one of the three lists.
    // Appended to under m_busMasterMutex, taken from under m_busMasterMutex and m_callbackMutex.
    CallbackList m_arrivalCallbacks;
    CallbackList m_removalCallbacks;
    CallbackList m_busResetCallbacks;

    // ---- Start-up --------------------------------------------------------------------------------------------------
    boost::mutex m_initializedMutex;  ///< Guards m_initialized; the worker holds it too while it rebuilds the lists.
    bool m_initialized = false;       ///< True while the worker runs and has registered for bus events.
    boost::thread m_workerThread;     ///< Initialize (under m_busMasterMutex) and the destructor only.

    // ---- The lists -------------------------------------------------------------------------------------------------
    boost::mutex m_busMasterMutex;    ///< The main lock: look-ups, registration, start-up, a whole worker cycle.
    HandleList m_cameraList;          ///< Current cameras. Under m_busMasterMutex.
    HandleList m_newCameraList;       ///< The listing that a cycle reconciles. The worker, under m_busMasterMutex.
    HandleList m_deviceList;          ///< Current devices. Under m_busMasterMutex.
    boost::mutex m_enumerationMutex;  ///< One camera enumeration at a time; held during the listings of the HAL.

    // ---- Generations -----------------------------------------------------------------------------------------------
    boost::mutex m_generationMutex;
    std::map<std::uint32_t, std::uint32_t> m_generations;  ///< By serial number. Under m_generationMutex.

    // ---- Shut-down, wake-up, idleness, confirmation ----------------------------------------------------------------
    boost::mutex m_exitThreadMutex;
    bool m_exitThread = false;   ///< Set once, by the destructor. Under m_exitThreadMutex.
    boost::mutex m_wakeUpMutex;  ///< The worker holds it from announcing idleness to its wait.
    boost::condition_variable m_wakeUpCondition;
    boost::mutex m_workerIdleMutex;
    boost::condition_variable m_workerIdleCondition;
    boost::mutex m_initConfirmMutex;
    boost::condition_variable m_initConfirmCondition;
    std::uint32_t m_threadStartError = 0;              ///< Result of the last start. Under m_initConfirmMutex.
    std::atomic<std::uint32_t> m_pendingBusResets{0};  ///< Bus resets seen and not yet handled. Any thread.

    // ---- State that closes races between the above -----------------------------------------------------------------
    const unsigned int m_forks = CountForks();  ///< Tells the process that has made this from those forked from it.

    void* const m_owner;  ///< What the HAL gets as context. Never dereferenced: FindLive tells whether it still lives.

    // Under m_initConfirmMutex.
    std::uint64_t m_startNumber = 0;  ///< The start that counts. A worker of an earlier one commits nothing.
    bool m_startAwaited = false;      ///< Initialize waits for that start, with m_busMasterMutex held.
    bool m_startConfirmed = false;    ///< The worker has confirmed it, perhaps before anybody waited.

    boost::mutex m_quietMutex;  ///< Leaf. Guards the four below.
    boost::condition_variable m_quietCondition;
    bool m_workerIdle = false;             ///< The worker waits for work.
    unsigned int m_callbacksLeft = 0;      ///< Callback threads that have not ended.
    std::uint64_t m_registrarsCome = 0;    ///< Registrars that had to wait for m_busMasterMutex so far,
    std::uint64_t m_registrarsPassed = 0;  ///< and those of them that got it.

    boost::mutex m_snapshotMutex;
    /// The cameras as a bus error walks them, which may come while a cycle changes the lists. Under m_snapshotMutex.
    boost::shared_ptr<const std::vector<BusMasterHandle>> m_cameraSnapshot;

    CallbackTurns m_callbackTurns;  ///< Who takes m_callbackMutex next: calls and registrars alike.

    std::uint64_t m_registrations = 0;  ///< Callbacks registered so far. Under m_busMasterMutex.

    /// Removed cameras that could not be signalled: never freed, only kept from leaking. The worker.
    HandleList m_unsignalledCameras;

    // ---- Operations ------------------------------------------------------------------------------------------------
    explicit Members(BusMaster* owner);
    ~Members();
    Members(const Members&) = delete;
    Members& operator=(const Members&) = delete;

    // lifecycle.cpp
    /// Whether this process was forked after the object was made. Then it has none of the object's threads and may find
    /// any of its locks taken, or any list half changed, for good: nothing of it is touched.
    bool IsInForkedProcess() const { return m_forks != CountForks(); }
    /// m_busMasterMutex, held; not even looked at in a forked process, where GetInitialized tells the caller to stop.
    boost::unique_lock<boost::mutex> LockMain();
    bool GetInitialized();  ///< False in a forked process.
    void SetInitialized(bool initialized);
    bool GetExitThread();
    void NotifyWorker();  ///< Wakes an idle worker. Takes m_wakeUpMutex for a moment.
    void StopWorker();
    static void FreeCamerasInParallel(const HandleList& list) noexcept;
    void FreeLists() noexcept;  ///< m_busMasterMutex held, or the last owner.
    /// The destructor's, when nobody registers any more. Waits at most one second for a callback that runs, and not at
    /// all inside one; afterwards no call begins, and those that wait for their turn end.
    /// @param workerIsDone  The worker will not look at the callbacks any more; they are only silenced otherwise.
    void FreeCallbacks(bool workerIsDone) noexcept;

    // worker.cpp
    void WorkerThreadFcn(std::uint64_t startNumber);
    void SetWorkerIdle(bool idle);

    // callbacks.cpp
    Error SignalCallbacks(CallbackList& list, unsigned int parameter);  ///< m_busMasterMutex held.
    void RunCall(std::unique_ptr<CallbackThreadData> call);             ///< Waits for its turn. A callback thread.
    void CallbackEnded();
    bool IsInsideCallback() const;  ///< Whether this thread runs a user function.
    /// For a registrar, which has its turn: locks m_busMasterMutex before the worker does so for another cycle.
    void LockMainBeforeNextCycle(boost::unique_lock<boost::mutex>& lock);
    void LetRegistrarsPass();  ///< The worker, no lock held: waits for the registrars that wait for m_busMasterMutex.

    // cameras.cpp
    Error GetCameras(HandleList& cameras);

    // lookups.cpp
    Error CountHandles(const HandleList& list, unsigned int* count);
    boost::shared_ptr<HardwareInterface> GetHwInterfaceFromGuidInternal(ZevoGuid guid);

    // events.cpp
    boost::shared_ptr<HardwareInterface> FindEventDevice(HALInterfaceType interfaceType, unsigned int first,
                                                         unsigned int second);
    void HandleBusEvent(HALBusEvent event, HALInterfaceType interfaceType, unsigned int first, unsigned int second);
    void PublishCameras() noexcept;  ///< m_busMasterMutex held, or Initialize waits with it.
    void IncrementGeneration(unsigned int key);

    // The objects that the HAL may still call back, by the context it was given.
    static void AddLive(const BusMaster* object, const boost::shared_ptr<Members>& members);
    static void RemoveLive(const BusMaster* object);
    static boost::shared_ptr<Members> FindLive(const void* object);
};

}  // namespace Nimbrel2

#endif
