// SPDX-License-Identifier: Apache-2.0
// Construction, start-up and bounded shut-down of the bus master.
// Runs on client threads, the destructor on the thread that ends the program, FreeCamera on threads of its own.
// Initialize holds m_busMasterMutex throughout, up to 40 s; the destructor waits at most a second for any lock.
#include <chrono>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"

namespace Nimbrel2 {

template class Singleton<BusMaster>;

namespace {

using Lock = boost::unique_lock<boost::mutex>;

}  // namespace

std::atomic<bool> BusMaster::m_enumerateVirtualDevices{false};

BusMaster::Members::Members(BusMaster* owner) : m_owner(owner) {}

// The last owner: either the destructor below, or a thread that it had to leave behind.
BusMaster::Members::~Members() {
    const UninterruptedWaits uninterruptedWaits;
    m_workerThread.detach();
    FreeLists();
    FreeCallbacks(true);
    for (BusMasterHandle* handle : m_unsignalledCameras) {
        delete handle;
    }
}

BusMaster::BusMaster() : m_members(new Members(this)) {
    TraceLine("Creating BusMaster");
    Members::AddLive(this, m_members);
    HAL_InitLibrary();
}

BusMaster::~BusMaster() {
    Members& members = *m_members;
    if (members.IsInForkedProcess()) {
        return;
    }
    const UninterruptedWaits uninterruptedWaits;
    TraceLine("Starting destruction of BusMaster");
    members.StopWorker();
    {
        const Lock lock(members.m_generationMutex);
        members.m_generations.clear();
    }
    bool workerIsDone = false;
    {
        Lock lock(members.m_busMasterMutex, boost::defer_lock);
        if (TryLockUntil(lock, DeadlineIn(GetDeadlines().lockAtDestruction))) {
            workerIsDone = true;  // a cycle that begins after this sees the exit flag at once
            members.FreeLists();
        } else {
            TraceLine("Leaving the camera and device lists to a thread that still holds them.");
        }
    }
    members.FreeCallbacks(workerIsDone);
    HAL_CleanupLibrary();
    Members::RemoveLive(this);
    TraceLine("Completed destruction of BusMaster");
}

Error BusMaster::Initialize() {
    return WithoutExceptions([this]() -> Error {
        Members& members = *m_members;
        if (members.IsInForkedProcess()) {
            return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED,
                                  "The bus master belongs to the process that this one was forked from.");
        }
        const UninterruptedWaits uninterruptedWaits;
        const Lock busMasterLock = members.LockMain();
        if (members.GetInitialized()) {
            return InternalError(ERROR_OK);
        }
        members.FreeLists();  // what an earlier start that failed has listed

        std::uint64_t startNumber = 0;
        {
            const Lock lock(members.m_initConfirmMutex);
            members.m_threadStartError = 0;
            members.m_startConfirmed = false;
            members.m_startAwaited = true;
            startNumber = ++members.m_startNumber;
        }
        // However this ends, nobody waits with the main lock held for that worker any more.
        const auto stopWaiting = [&members] {
            const Lock lock(members.m_initConfirmMutex);
            members.m_startAwaited = false;
        };
        try {
            boost::thread worker = StartThread(
                "nimbrel-worker", [shared = m_members, startNumber] { shared->WorkerThreadFcn(startNumber); });
            members.m_workerThread.detach();
            members.m_workerThread = std::move(worker);
        } catch (const boost::thread_resource_error& error) {
            stopWaiting();
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Could not start the worker thread. System error: %d.",
                                  error.native_error());
        } catch (...) {
            stopWaiting();
            throw;
        }

        const boost::posix_time::ptime deadline = DeadlineIn(GetDeadlines().startConfirmation);
        Lock lock(members.m_initConfirmMutex);
        const bool timedOut = !members.m_startConfirmed && !members.m_initConfirmCondition.timed_wait(lock, deadline) &&
                              !members.m_startConfirmed;
        members.m_startAwaited = false;
        if (timedOut) {
            return NIMBREL2_ERROR(ERROR_INIT_TIMED_OUT, "Timed out waiting for confirmation of initialization.");
        }
        if (members.m_threadStartError != 0) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Could not create the internal thread. Error: 0x%x.",
                                  members.m_threadStartError);
        }
        return InternalError(ERROR_OK);
    });
}

bool BusMaster::GetInitialized() { return m_members->GetInitialized(); }

Error BusMaster::EnableVirtualDeviceEnumeration() {
    m_enumerateVirtualDevices = true;
    return InternalError(ERROR_OK);
}

Error BusMaster::DisableVirtualDeviceEnumeration() {
    m_enumerateVirtualDevices = false;
    return InternalError(ERROR_OK);
}

boost::unique_lock<boost::mutex> BusMaster::Members::LockMain() {
    Lock lock(m_busMasterMutex, boost::defer_lock);
    if (!IsInForkedProcess()) {
        lock.lock();
    }
    return lock;
}

bool BusMaster::Members::GetInitialized() {
    if (IsInForkedProcess()) {
        return false;
    }
    const Lock lock(m_initializedMutex);
    return m_initialized;
}

void BusMaster::Members::SetInitialized(bool initialized) {
    const Lock lock(m_initializedMutex);
    m_initialized = initialized;
}

bool BusMaster::Members::GetExitThread() {
    const Lock lock(m_exitThreadMutex);
    return m_exitThread;
}

void BusMaster::Members::NotifyWorker() {
    // A worker between its last look at what is pending and its wait holds the mutex: the notice cannot fall in
    // between.
    { const Lock lock(m_wakeUpMutex); }
    m_wakeUpCondition.notify_one();
}

void BusMaster::Members::StopWorker() {
    {
        const Lock lock(m_exitThreadMutex);
        m_exitThread = true;
    }
    {
        // A start that Initialize has given up on commits nothing from here on: what m_initialized says stays.
        const Lock lock(m_initConfirmMutex);
        ++m_startNumber;
    }
    bool initialized = true;  // a worker that rebuilds the lists holds the mutex, and only an initialised one does
    {
        Lock lock(m_initializedMutex, boost::try_to_lock);
        if (lock.owns_lock()) {
            initialized = m_initialized;
        }
    }
    const auto notify = [this] {
        { const Lock lock(m_initConfirmMutex); }
        m_initConfirmCondition.notify_one();
        NotifyWorker();
    };
    if (initialized) {
        notify();
        { const Lock lock(m_workerIdleMutex); }
        m_workerIdleCondition.notify_all();
        const int attempts = GetDeadlines().joinAttempts;
        for (int attempt = 1;; ++attempt) {
            const boost::posix_time::ptime deadline = DeadlineIn(GetDeadlines().joinAttempt);
            if (m_workerThread.joinable() && m_workerThread.timed_join(deadline)) {
                break;
            }
            if (attempt == attempts) {
                TraceLine("Timed out while waiting for BusMaster worker thread to exit.");
                notify();
                break;
            }
            notify();
        }
    }
}

// Releasing a camera may wait for its last operation in flight: one thread each. Without a thread it happens here.
void BusMaster::Members::FreeCamerasInParallel(const HandleList& list) noexcept {
    std::vector<boost::thread> threads;
    try {
        threads.reserve(list.size());
    } catch (const std::bad_alloc&) {
        TraceLine("No memory for the threads that free cameras.");
    }
    for (BusMasterHandle* handle : list) {
        bool started = false;
        try {
            if (threads.size() < threads.capacity()) {
                threads.push_back(StartThread("nimbrel-free", [handle] { FreeCamera(handle); }));
                started = true;
            }
        } catch (...) {
            TraceLine("A camera is freed without a thread of its own.");
        }
        if (!started) {
            FreeCamera(handle);
        }
    }
    for (boost::thread& thread : threads) {
        thread.join();
    }
}

void BusMaster::Members::FreeLists() noexcept {
    FreeCamerasInParallel(m_cameraList);
    FreeCamerasInParallel(m_newCameraList);
    m_cameraList.clear();
    m_newCameraList.clear();
    FreeDeviceList(&m_deviceList);
    PublishCameras();
}

void BusMaster::Members::FreeCallbacks(bool workerIsDone) noexcept {
    const std::chrono::microseconds patience(GetDeadlines().lockAtDestruction.total_microseconds());
    // Inside a callback, which exit() brought here, the turn is this thread's own and nobody could end it.
    const bool hasTurn = !IsInsideCallback() && m_callbackTurns.TakeWithin(patience);
    bool freed = false;
    if (workerIsDone) {
        freed = hasTurn && FreeCallbackList(&m_arrivalCallbacks, m_callbackSet, m_callbackMutex) &&
                FreeCallbackList(&m_removalCallbacks, m_callbackSet, m_callbackMutex) &&
                FreeCallbackList(&m_busResetCallbacks, m_callbackSet, m_callbackMutex);
        if (!freed) {
            TraceLine("Leaving the callbacks to a thread that still runs one.");
        }
    }
    if (!freed) {
        // The records stay, but calls that have not begun must not reach a user who has seen the end.
        for (const CallbackList* list : {&m_arrivalCallbacks, &m_removalCallbacks, &m_busResetCallbacks}) {
            for (CallbackData* callback : *list) {
                callback->fn = nullptr;
            }
        }
    }
    m_callbackTurns.WithdrawAll();
    if (hasTurn) {
        m_callbackTurns.PassOn();
    }
}

}  // namespace Nimbrel2
