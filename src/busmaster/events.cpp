// SPDX-License-Identifier: Apache-2.0
// What the HAL's delivery threads run, the generation counters and the rescan request.
// An event only records and wakes: it takes m_busMasterMutex for a look-up when it names a device, and no lock for long
// otherwise. A bus error walks a snapshot, so that it neither waits for a cycle nor sees a list half merged.
#include <boost/make_shared.hpp>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"
#include "common/GuidGenerator.h"

namespace Nimbrel2 {

namespace {

using Lock = boost::unique_lock<boost::mutex>;

const char* EventName(HALBusEvent event) {
    switch (event) {
        case HAL_BUS_RESET:
            return "Bus reset";
        case HAL_BUS_ARRIVAL:
            return "Bus arrival";
        case HAL_BUS_REMOVAL:
            return "Bus removal";
        case HAL_BUS_ERROR:
            return "Bus error";
        default:
            return "Unknown bus event";
    }
}

const char* BusName(HALInterfaceType interfaceType) {
    switch (interfaceType) {
        case HAL_INTERFACE_1394:
            return "1394";
        case HAL_INTERFACE_USB:
            return "USB";
        case HAL_INTERFACE_GIGE:
            return "GigE";
        default:
            return "Unknown";
    }
}

InterfaceType ToInterfaceType(HALInterfaceType interfaceType) {
    static constexpr InterfaceType types[] = {INTERFACE_IEEE1394, INTERFACE_USB_2, INTERFACE_GIGE};
    return interfaceType <= HAL_INTERFACE_GIGE ? types[interfaceType] : INTERFACE_NONE;
}

// The objects that events may come in for. Never destroyed: a delivery thread may outlive every exit handler.
struct LiveObjects {
    boost::mutex mutex;  // Leaf.
    std::map<const void*, boost::shared_ptr<void>> objects;
};

LiveObjects& GetLiveObjects() {
    static LiveObjects& live = *new LiveObjects;
    return live;
}

}  // namespace

void BusMaster::Members::AddLive(const BusMaster* object, const boost::shared_ptr<Members>& members) {
    LiveObjects& live = GetLiveObjects();
    const Lock lock(live.mutex);
    live.objects[object] = members;
}

void BusMaster::Members::RemoveLive(const BusMaster* object) {
    LiveObjects& live = GetLiveObjects();
    const Lock lock(live.mutex);
    live.objects.erase(object);
}

boost::shared_ptr<BusMaster::Members> BusMaster::Members::FindLive(const void* object) {
    LiveObjects& live = GetLiveObjects();
    const Lock lock(live.mutex);
    const auto found = live.objects.find(object);
    return found == live.objects.end() ? boost::shared_ptr<Members>()
                                       : boost::static_pointer_cast<Members>(found->second);
}

void BusMaster::HALBusEventCallback(HALBusEvent event, void* context, HALInterfaceType interfaceType,
                                    unsigned int first, unsigned int second, unsigned int) {
    try {
        // The object may be going: it is looked up, not trusted, and its members are kept for as long as this runs.
        if (const boost::shared_ptr<Members> members = Members::FindLive(context)) {
            members->HandleBusEvent(event, interfaceType, first, second);
        }
    } catch (...) {
        TraceLine("An exception ended the handling of a bus event.");
    }
}

// Waits for a running cycle when the event names a device. Nothing when the event names none, or one that is not
// listed, or when no memory is left to make its guid: the event itself must not be lost.
boost::shared_ptr<HardwareInterface> BusMaster::Members::FindEventDevice(HALInterfaceType interfaceType,
                                                                         unsigned int first, unsigned int second) {
    if (first == 0 && second == 0) {
        return {};
    }
    try {
        ZevoGuid guid;
        const Error error =
            GuidGenerator::GenerateGUIDForDevice(ToInterfaceType(interfaceType), first, second, 0xFFFFFFFF, &guid);
        return error == ERROR_OK ? GetHwInterfaceFromGuidInternal(guid) : boost::shared_ptr<HardwareInterface>();
    } catch (const std::bad_alloc&) {
        return {};
    }
}

void BusMaster::Members::HandleBusEvent(HALBusEvent event, HALInterfaceType interfaceType, unsigned int first,
                                        unsigned int second) {
    TraceLine("Bus event: %s on %s interface", EventName(event), BusName(interfaceType));
    const boost::shared_ptr<HardwareInterface> device = FindEventDevice(interfaceType, first, second);
    switch (event) {
        case HAL_BUS_RESET:
            ++m_pendingBusResets;
            NotifyWorker();
            if (device) {
                ++device->busResetCount;
            }
            break;
        case HAL_BUS_ARRIVAL:
            if (device) {
                ++device->arrivalCount;
            }
            break;
        case HAL_BUS_REMOVAL:
            if (device) {
                ++device->removalCount;
            }
            break;
        case HAL_BUS_ERROR: {
            boost::shared_ptr<const std::vector<BusMasterHandle>> cameras;
            {
                const Lock lock(m_snapshotMutex);
                cameras = m_cameraSnapshot;
            }
            if (cameras) {
                for (BusMasterHandle camera : *cameras) {
                    ReenableIso(&camera);
                }
            }
            if (device) {
                ++device->busErrorCount;
            }
            break;
        }
        default:
            break;
    }
}

void BusMaster::Members::PublishCameras() noexcept {
    try {
        auto cameras = boost::make_shared<std::vector<BusMasterHandle>>();
        cameras->reserve(m_cameraList.size());
        for (const BusMasterHandle* camera : m_cameraList) {
            cameras->push_back(*camera);
        }
        boost::shared_ptr<const std::vector<BusMasterHandle>> published = std::move(cameras);
        const Lock lock(m_snapshotMutex);
        m_cameraSnapshot.swap(published);  // the old one is freed without the lock
    } catch (...) {
        // The old snapshot stays: its released cameras answer with a status, its newcomers come with the next one.
        TraceLine("No memory for a snapshot of the camera list.");
    }
}

void BusMaster::IncrementGeneration(unsigned int key) {
    if (!m_members->IsInForkedProcess()) {
        m_members->IncrementGeneration(key);
    }
}

void BusMaster::Members::IncrementGeneration(unsigned int key) {
    const Lock lock(m_generationMutex);
    ++m_generations[key];
}

unsigned int BusMaster::GetGeneration(unsigned int key) {
    if (m_members->IsInForkedProcess()) {
        return 0;
    }
    const Lock lock(m_members->m_generationMutex);
    try {
        return m_members->m_generations[key];
    } catch (const std::bad_alloc&) {
        return 0;  // A key that is absent reads as 0, whether or not there is memory to record it.
    }
}

void BusMaster::SetGeneration(unsigned int key, unsigned int value) {
    if (m_members->IsInForkedProcess()) {
        return;
    }
    const Lock lock(m_members->m_generationMutex);
    m_members->m_generations[key] = value;
}

Error BusMaster::RescanBus() {
    return WithoutExceptions([this]() -> Error {
        if (m_members->IsInForkedProcess()) {
            return InternalError(ERROR_OK);
        }
        const UninterruptedWaits uninterruptedWaits;
        // Held from before the notice: the worker cannot announce its idleness before this thread waits for it.
        Lock lock(m_members->m_workerIdleMutex);
        m_members->NotifyWorker();
        m_members->m_workerIdleCondition.timed_wait(lock, DeadlineIn(GetDeadlines().rescan));
        return InternalError(ERROR_OK);
    });
}

bool BusMaster::WaitUntilQuiet(unsigned int milliseconds) {
    Members& members = *m_members;
    if (members.IsInForkedProcess() || members.IsInsideCallback()) {
        return false;
    }
    const UninterruptedWaits uninterruptedWaits;
    const boost::posix_time::ptime deadline = DeadlineIn(boost::posix_time::milliseconds(milliseconds));
    Lock lock(members.m_quietMutex);
    return members.m_quietCondition.timed_wait(lock, deadline, [&members] {
        return members.m_workerIdle && members.m_callbacksLeft == 0 && members.m_pendingBusResets == 0;
    });
}

}  // namespace Nimbrel2
