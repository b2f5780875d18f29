// SPDX-License-Identifier: Apache-2.0
// The worker thread: start-up, the idle wait, the re-enumeration cycle, and the way out.
// Runs on the one thread that Initialize starts. A cycle holds m_busMasterMutex throughout and m_initializedMutex from
// the camera listing to the new device list; user callbacks are only signalled, never waited for.
#include <array>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"

namespace Nimbrel2 {

namespace {

using Lock = boost::unique_lock<boost::mutex>;

// One of the three registrations for bus events.
struct Registration {
    std::uint32_t (*registerEvents)(void**, HALBusEventFunction, void*);
    std::uint32_t (*deregisterEvents)(void*);
    const char* bus;
    void* handle = nullptr;
};

constexpr std::uint32_t ListingFailed = 1;  // the worker's own code for a start that could not list

}  // namespace

// One run of the worker. What it holds when it ends is freed.
class NIMBREL2_INTERNAL BusMaster::Worker {
public:
    Worker(Members& members, std::uint64_t startNumber)
        : m_members(members),
          m_startNumber(startNumber),
          m_busMasterLock(members.m_busMasterMutex, boost::defer_lock),
          m_initializedLock(members.m_initializedMutex, boost::defer_lock) {}

    ~Worker() { FreeCameraList(&m_removed); }

    void Run() {
        TraceLine("Starting BusMaster worker thread");
        if (!Start()) {
            return;
        }
        while (WaitForWork() == Next::Go && RunCycle() == Next::Go) {
        }
        Exit();
    }

private:
    enum class Next { Go, Exit };
    enum class Traces { None, All };

    // ---- Start-up --------------------------------------------------------------------------------------------------

    // True when the worker may go on. A start that a later one has overtaken ends here silently.
    bool Start() {
        HandleList cameras;
        if (!Succeeds([&] { return m_members.GetCameras(cameras); })) {
            return FailStart("Failed to get initial camera list", ListingFailed);
        }
        if (!Commit([&] {
                m_members.m_cameraList.swap(cameras);
                m_members.PublishCameras();
            })) {
            FreeCameraList(&cameras);
            return false;
        }
        HandleList devices;
        if (!Succeeds([&] { return GetDevices(&devices); })) {
            return FailStart("Failed to get initial device list", ListingFailed);
        }
        if (!Commit([&] { m_members.m_deviceList.swap(devices); })) {
            FreeDeviceList(&devices);
            return false;
        }
        if (!RegisterAll()) {
            return false;
        }
        if (!Commit([this] { m_members.SetInitialized(true); })) {
            DeregisterAll(Traces::None);
            return false;
        }
        Confirm();
        TraceLine("Successfully initialized BusMaster worker thread");
        return true;
    }

    bool RegisterAll() {
        for (std::size_t i = 0; i < m_registrations.size(); ++i) {
            Registration& registration = m_registrations[i];
            const std::uint32_t status =
                registration.registerEvents(&registration.handle, &HALBusEventCallback, m_members.m_owner);
            if (status == HAL_OK) {
                continue;
            }
            const Traces traces = IsOvertaken() ? Traces::None : Traces::All;
            if (traces == Traces::All) {
                TraceLine("Failed to register %s bus events", registration.bus);
            }
            if (i == 0) {
                // The clean-up's result is what the start answers, so one that succeeds is reported as success.
                StoreStartError(Deregister(registration, traces));
            } else {
                StoreStartError(status);
                for (std::size_t k = 0; k <= i; ++k) {
                    Deregister(m_registrations[k], traces);
                }
            }
            Confirm();
            return false;
        }
        return true;
    }

    bool FailStart(const char* trace, std::uint32_t code) {
        if (!IsOvertaken()) {
            TraceLine("%s", trace);
        }
        StoreStartError(code);
        Confirm();
        return false;
    }

    bool IsOvertaken() const {
        const Lock lock(m_members.m_initConfirmMutex);
        return m_members.m_startNumber != m_startNumber;
    }

    // Runs a change of the members, unless another start has begun: Initialize either waits for this one, and lends it
    // the main lock that it holds, or has given up, and the worker takes the lock itself.
    template <class Change>
    bool Commit(Change change) {
        {
            const Lock confirmLock(m_members.m_initConfirmMutex);
            if (m_members.m_startNumber != m_startNumber) {
                return false;
            }
            if (m_members.m_startAwaited) {
                change();
                return true;
            }
        }
        const Lock busMasterLock(m_members.m_busMasterMutex);
        const Lock confirmLock(m_members.m_initConfirmMutex);
        if (m_members.m_startNumber != m_startNumber) {
            return false;
        }
        change();
        return true;
    }

    void StoreStartError(std::uint32_t code) {
        const Lock lock(m_members.m_initConfirmMutex);
        if (m_members.m_startNumber == m_startNumber) {
            m_members.m_threadStartError = code;
            m_members.SetInitialized(false);
        }
    }

    // Only the start that counts may end the wait of Initialize. It notifies under the lock: Initialize, which may have
    // seen the flag already, could otherwise return and be called again, and the late notice end that call's wait.
    void Confirm() {
        const Lock lock(m_members.m_initConfirmMutex);
        if (m_members.m_startNumber == m_startNumber) {
            m_members.m_startConfirmed = true;
            m_members.m_initConfirmCondition.notify_one();
        }
    }

    // ---- The loop --------------------------------------------------------------------------------------------------

    // Idles until there is something to do, or takes on the resets that came in during the last cycle.
    Next WaitForWork() {
        if (m_members.m_pendingBusResets == 0) {
            Lock idleLock(m_members.m_workerIdleMutex);
            Lock wakeUpLock(m_members.m_wakeUpMutex);
            m_members.m_workerIdleCondition.notify_one();
            idleLock.unlock();
            // From here to the wait nobody can give notice, so what came before it is looked at once more.
            if (m_members.m_pendingBusResets == 0) {
                m_members.SetWorkerIdle(true);
                if (!m_members.GetExitThread()) {
                    m_members.m_wakeUpCondition.wait(wakeUpLock);
                }
                m_members.SetWorkerIdle(false);
                TraceLine("BusMaster wake up event triggered");
                return Next::Go;
            }
        }
        TraceLine("Handling outstanding bus reset (%u)", m_members.m_pendingBusResets.load());
        boost::this_thread::sleep(GetDeadlines().stormPause);  // lets waiting look-ups have the main lock
        const Lock lock(m_members.m_busMasterMutex);
        m_members.m_pendingBusResets = 0;
        return Next::Go;
    }

    Next RunCycle() {
        m_removed.clear();
        m_arrived.clear();
        m_members.LetRegistrarsPass();
        m_busMasterLock.lock();
        if (Reconcile() == Next::Exit) {
            return Next::Exit;  // with the locks that it holds: Exit traces before it gives them back
        }
        UnlockIfHeld(m_initializedLock);
        if (m_reconciled) {
            Signal();
        }
        m_busMasterLock.unlock();
        return m_members.GetExitThread() ? Next::Exit : Next::Go;
    }

    // Lists again and merges. m_reconciled tells whether there is anything to signal. Takes the initialised lock and
    // returns with it held, but after the whole way.
    Next Reconcile() {
        m_reconciled = false;
        if (m_members.GetExitThread()) {
            return Next::Exit;
        }
        m_initializedLock.lock();
        if (!Succeeds([this] { return m_members.GetCameras(m_members.m_newCameraList); })) {
            TraceLine("Failed to get new camera list");
            return Next::Go;
        }
        if (m_members.GetExitThread()) {
            return Next::Exit;
        }
        if (!Succeeds([this]() -> Error {
                // Room for every camera that leaves: keeping one that cannot be signalled must not need memory.
                m_members.m_unsignalledCameras.reserve(m_members.m_unsignalledCameras.size() +
                                                       m_members.m_cameraList.size());
                return UpdateCameraList(m_members.m_cameraList, m_members.m_newCameraList, m_arrived, m_removed);
            })) {
            TraceLine("Failed to update camera list");
            FreeCameraList(&m_members.m_newCameraList);  // or the next listing would find them in it
            return Next::Go;
        }
        m_members.PublishCameras();
        if (m_members.GetExitThread()) {
            return Next::Exit;
        }
        HandleList freshDevices;
        if (!Succeeds([&] { return GetDevices(&freshDevices); })) {
            TraceLine("Failed to get new device list");
        }
        m_members.m_deviceList.swap(freshDevices);
        FreeDeviceList(&freshDevices);
        m_initializedLock.unlock();
        if (m_members.GetExitThread()) {
            return Next::Exit;
        }
        m_reconciled = true;
        return Next::Go;
    }

    void Signal() {
        if (m_members.SignalCallbacks(m_members.m_busResetCallbacks, 0) != ERROR_OK) {
            TraceLine("Error signaling bus reset callbacks");
        }
        for (std::size_t i = 0; i < m_removed.size(); ++i) {
            BusMasterHandle* const handle = m_removed[i];
            if (!CountAndSignal(m_members.m_removalCallbacks, *handle)) {
                TraceLine("Error signaling bus removal callback %zu", i);
                m_members.m_unsignalledCameras.push_back(handle);  // users may not have heard that it is gone
                continue;
            }
            if (handle->hwInterface->ReleaseCamera() != HAL_OK) {
                TraceLine("Error freeing camera");
            }
            handle->hwInterface.reset();
            delete handle;
        }
        m_removed.clear();
        for (std::size_t i = 0; i < m_arrived.size(); ++i) {
            if (!CountAndSignal(m_members.m_arrivalCallbacks, *m_arrived[i])) {
                TraceLine("Error signaling bus arrival callback %zu", i);
            }
        }
        m_arrived.clear();
    }

    bool CountAndSignal(Members::CallbackList& callbacks, const BusMasterHandle& handle) {
        return Succeeds([&]() -> Error {
            m_members.IncrementGeneration(handle.serialNumber);
            return m_members.SignalCallbacks(callbacks, handle.serialNumber);
        });
    }

    // ---- The way out -----------------------------------------------------------------------------------------------

    void Exit() {
        TraceLine("Breaking out of BusMaster worker thread");
        UnlockIfHeld(m_initializedLock);
        UnlockIfHeld(m_busMasterLock);
        m_members.SetInitialized(false);
        {
            const Lock lock(m_members.m_initializedMutex);
            DeregisterAll(Traces::All);
        }
        TraceLine("Exiting BusMaster worker thread");
    }

    void DeregisterAll(Traces traces) {
        for (Registration& registration : m_registrations) {
            Deregister(registration, traces);
        }
    }

    static std::uint32_t Deregister(Registration& registration, Traces traces) {
        const std::uint32_t status = registration.deregisterEvents(registration.handle);
        if (status != HAL_OK && traces == Traces::All) {
            TraceLine("Failed to deregister %s bus events", registration.bus);
        }
        return status;
    }

    // A step that throws (no memory, no thread) has failed like one that says so.
    template <class Step>
    static bool Succeeds(Step step) {
        return WithoutExceptions(step) == ERROR_OK;
    }

    Members& m_members;
    const std::uint64_t m_startNumber;
    std::array<Registration, 3> m_registrations{{{&HAL_1394RegisterBusEvents, &HAL_1394DeregisterBusEvents, "1394"},
                                                 {&HAL_UsbRegisterBusEvents, &HAL_UsbDeregisterBusEvents, "USB"},
                                                 {&HAL_GigERegisterBusEvents, &HAL_GigEDeregisterBusEvents, "GigE"}}};
    HandleList m_removed;
    HandleList m_arrived;
    bool m_reconciled = false;
    Lock m_busMasterLock;
    Lock m_initializedLock;
};

void BusMaster::Members::SetWorkerIdle(bool idle) {
    {
        const Lock lock(m_quietMutex);
        m_workerIdle = idle;
    }
    m_quietCondition.notify_all();
}

void BusMaster::Members::WorkerThreadFcn(std::uint64_t startNumber) { Worker(*this, startNumber).Run(); }

}  // namespace Nimbrel2
