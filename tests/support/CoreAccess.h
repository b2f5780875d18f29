// SPDX-License-Identifier: Apache-2.0
// What tests see of the bus master's inside. No thread and no lock of its own.
#ifndef NIMBREL2_TESTS_SUPPORT_COREACCESS_H
#define NIMBREL2_TESTS_SUPPORT_COREACCESS_H

#include <gtest/gtest.h>

#include <thread>

#include "busmaster/BusMaster.h"
#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"
#include "tests/support/Gate.h"

namespace Nimbrel2 {

struct BusMasterTestAccess {
    using Members = BusMaster::Members;
    using CallbackData = BusMaster::CallbackData;
    using CallbackThreadData = BusMaster::CallbackThreadData;
    using HandleList = std::vector<BusMasterHandle*>;

    static Members& Get(BusMaster& busMaster) { return *busMaster.m_members; }
    /// A share, for a test that looks at members after the object has gone.
    static boost::shared_ptr<Members> Share(BusMaster& busMaster) { return busMaster.m_members; }

    static Error Get1394Cameras(HandleList* list) { return BusMaster::Get1394Cameras(list); }
    static Error GetUSBCameras(HandleList* list) { return BusMaster::GetUSBCameras(list); }
    static Error GetGigECameras(HandleList* list) { return BusMaster::GetGigECameras(list); }
    static Error GetVirtualCameras(HandleList* list) { return BusMaster::GetVirtualCameras(list); }
    static Error GetDevices(HandleList* list) { return BusMaster::GetDevices(list); }
    static Error Get1394Devices(HandleList* list) { return BusMaster::Get1394Devices(list); }
    static Error GetCameras(BusMaster& busMaster, HandleList& list) { return Get(busMaster).GetCameras(list); }

    static void FreeCamera(BusMasterHandle* handle) { BusMaster::FreeCamera(handle); }
    static void FreeCameraList(HandleList* list) { BusMaster::FreeCameraList(list); }
    static void FreeDeviceList(HandleList* list) { BusMaster::FreeDeviceList(list); }
    static void Free1394HALCameras(void** entries, unsigned int end, unsigned int start) {
        BusMaster::Free1394HALCameras(entries, end, start);
    }
    static void Free1394HALDevices(void** entries, unsigned int end, unsigned int start) {
        BusMaster::Free1394HALDevices(entries, end, start);
    }
    static void FreeUsbHALDevices(void** entries, unsigned int end, unsigned int start) {
        BusMaster::FreeUsbHALDevices(entries, end, start);
    }
    static void FreeGigEHALDevices(void** entries, unsigned int end, unsigned int start) {
        BusMaster::FreeGigEHALDevices(entries, end, start);
    }

    static Error UpdateCameraList(HandleList& current, HandleList& fresh, HandleList& arrived, HandleList& removed) {
        return BusMaster::UpdateCameraList(current, fresh, arrived, removed);
    }
    static bool ReassignNode(BusMasterHandle* from, BusMasterHandle* to) { return BusMaster::ReassignNode(from, to); }
    static bool ReassignBusNumber(BusMasterHandle* from, BusMasterHandle* to) {
        return BusMaster::ReassignBusNumber(from, to);
    }
    static bool ReenableIso(BusMasterHandle* handle) { return BusMaster::ReenableIso(handle); }

    static Error SignalCallbacks(BusMaster& busMaster, std::list<CallbackData*>& list, unsigned int parameter) {
        return Get(busMaster).SignalCallbacks(list, parameter);
    }
    static void* SignalCallbackThread(void* data, std::set<CallbackData*>& liveSet, boost::mutex& setMutex) {
        return BusMaster::SignalCallbackThread(data, liveSet, setMutex);
    }
    static bool FreeCallbackList(std::list<CallbackData*>* list, std::set<CallbackData*>& liveSet,
                                 boost::mutex& setMutex) {
        return BusMaster::FreeCallbackList(list, liveSet, setMutex);
    }
    static void HALBusEventCallback(HALBusEvent event, void* context, HALInterfaceType interfaceType,
                                    unsigned int first, unsigned int second, unsigned int third) {
        BusMaster::HALBusEventCallback(event, context, interfaceType, first, second, third);
    }
    static void ParseSelfIdPacketZero(const SelfIdPacket_t* packet, std::vector<TopologyNode::PortType>& ports,
                                      std::uint32_t& childCount) {
        BusMaster::ParseSelfIdPacketZero(packet, ports, childCount);
    }
    static void ParseSelfIdPacketMore(const SelfIdPacket_t* packet, std::vector<TopologyNode::PortType>& ports,
                                      std::uint32_t& childCount) {
        BusMaster::ParseSelfIdPacketMore(packet, ports, childCount);
    }
    static Error ParseSelfIdPackets(TopologyNode* node, std::uint64_t count, const SelfIdPacket_t* packets) {
        return BusMaster::ParseSelfIdPackets(node, count, packets);
    }
    static void BuildUsbTopology(TopologyNode* parent, std::uint64_t parentRoute,
                                 const std::array<std::vector<UsbSelfId>, 5>* tiers, unsigned int tier) {
        BusMaster::BuildUsbTopology(parent, parentRoute, tiers, tier);
    }
    static void AddNodesAsChildren(TopologyNode& parent, std::vector<TopologyNode>& nodes) {
        BusMaster::AddNodesAsChildren(parent, nodes);
    }
    static void AddPortsAsChildren(TopologyNode& parent, const std::vector<TopologyNode::PortType>& ports) {
        BusMaster::AddPortsAsChildren(parent, ports);
    }
    static bool EnumeratesVirtualDevices() { return BusMaster::m_enumerateVirtualDevices; }
};

namespace Testing {

/// True when another thread can take the mutex now, or soon: a thread that the test started may hold it for a moment.
inline bool AnotherThreadCanLock(boost::mutex& mutex) {
    bool locked = false;
    std::thread([&] {
        boost::unique_lock<boost::mutex> lock(mutex, boost::defer_lock);
        locked = TryLockUntil(lock, DeadlineIn(boost::posix_time::seconds(5)));
    }).join();
    return locked;
}

/// Fails the test when the call before it has left the main lock, or one of the others, taken.
inline void ExpectLocksFree(BusMaster& busMaster) {
    BusMasterTestAccess::Members& members = BusMasterTestAccess::Get(busMaster);
    EXPECT_TRUE(AnotherThreadCanLock(members.m_busMasterMutex));
    EXPECT_TRUE(AnotherThreadCanLock(members.m_initializedMutex));
    EXPECT_TRUE(AnotherThreadCanLock(members.m_callbackMutex));
    EXPECT_TRUE(AnotherThreadCanLock(members.m_enumerationMutex));
}

}  // namespace Testing

}  // namespace Nimbrel2

#endif
