// SPDX-License-Identifier: Apache-2.0
// The bus master: the cameras attached to this computer, kept current while they come and go.
#ifndef NIMBREL2_BUSMASTER_BUSMASTER_H
#define NIMBREL2_BUSMASTER_BUSMASTER_H

#include <array>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <list>
#include <set>
#include <vector>

#include "busmaster/BusCallbackType.h"
#include "common/BusMasterHandle.h"
#include "common/CameraInfo.h"
#include "common/Error.h"
#include "common/HardwareInterface.h"
#include "common/IPAddress.h"
#include "common/InterfaceType.h"
#include "common/MACAddress.h"
#include "common/Singleton.h"
#include "common/ZevoGuid.h"
#include "hal/HAL.h"
#include "topology/TopologyNode.h"

namespace boost {
class mutex;
}

namespace Nimbrel2 {

/// The one object that knows the cameras and devices on IEEE 1394, USB and GigE.
///
/// Use: `Singleton<BusMaster>::GetInstance().Initialize()`, then anything else. A worker thread enumerates again after
/// each bus reset and reconciles the lists; registered callbacks hear of resets, arrivals and removals.
///
/// Every public operation returns an Error by value and lets no exception out; when memory runs out it returns a bare
/// ERROR_MEMORY_ALLOCATION_FAILED. Out-parameters are written only as stated.
///
/// A process that is forked after the object was made has the object but not its threads. There every operation answers
/// ERROR_NOT_INITIALIZED, or its own "not found" if it has no such answer (RescanBus: ERROR_OK), without taking a lock,
/// and the destructor does nothing: the child may call exit() or start another program. Turn into a daemon before the
/// first GetInstance.
///
/// The shared library is never unloaded, for a thread that had to be left behind may still run in it. A plug-in that
/// uses it may be, once it has taken its callbacks back and nobody uses what KeepHwInterface gave it. A plug-in that
/// links the static core (nimbrel2::core) must be linked with -z nodelete itself.
///
/// All threads of the library block all signals but those of faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS,
/// SIGABRT) and SIGPROF, so that an application may block the others and read them from a signalfd, before or after
/// Initialize.
/// @par Threads  Any, user callbacks included, unless an operation says otherwise. Operations on the lists wait while a
///               re-enumeration runs, which is milliseconds, and while Initialize waits, which can be 40 s.
class NIMBREL2_API BusMaster : public Singleton<BusMaster> {
public:
    /// Starts the HAL. Lists nothing yet. Applications use Singleton<BusMaster>::GetInstance().
    BusMaster();

    /// Stops the worker (5 s at most), frees cameras, devices and callbacks, then stops the HAL. A callback that runs
    /// is waited for (1 s at most), unless this is it; operations answer meanwhile. A thread that hangs is left behind
    /// with what it uses. Inside a callback only through exit().
    ~BusMaster() override;

    BusMaster(const BusMaster&) = delete;
    BusMaster& operator=(const BusMaster&) = delete;

    // ---- Lifecycle -------------------------------------------------------------------------------------------------

    /// Lists all cameras and devices and begins to follow the buses. Harmless when that runs already.
    /// @return ERROR_INIT_TIMED_OUT after 40 s (the start may still succeed later); ERROR_LOW_LEVEL_FAILURE with the
    ///         worker's or the system's error number. May be called again after a failure. ERROR_OK does not promise
    ///         success when 1394 events could not be registered for: GetInitialized tells. ERROR_NOT_INITIALIZED in a
    ///         forked process.
    /// @par Cost  The first GigE discovery: its window, 1 s by default.
    Error Initialize();

    /// True while the worker runs and has registered for bus events. Waits while the lists are being rebuilt.
    bool GetInitialized();

    /// Whether listings hold the HAL's virtual cameras too. For the whole process; counts from the next listing on.
    Error EnableVirtualDeviceEnumeration();
    Error DisableVirtualDeviceEnumeration();

    /// Asks the worker to enumerate again and waits until it is idle, at most 1 s. A request that finds the worker busy
    /// starts no further enumeration. BUS_RESET callbacks are called as after a bus reset. Always ERROR_OK.
    Error RescanBus();

    /// Waits until no bus reset is pending, the worker is idle and no callback is left to run: everything that was
    /// reported so far has been acted upon.
    /// @return true if in time; false at once inside a callback, and in a forked process.
    bool WaitUntilQuiet(unsigned int milliseconds);

    // ---- Callbacks -------------------------------------------------------------------------------------------------

    /// Has a function called after each event of a kind: function(data, serial), where serial is that of the camera
    /// that came or left and 0 for a bus reset. What has arrived is listed by then, what has left no longer is. Cameras
    /// that Initialize has listed do not arrive: register first, then list.
    ///
    /// Each call runs on a thread of its own, one at a time in the process, in no particular order. Calls that wait for
    /// a slow one keep a thread each. A callback may call every look-up and bus operation. What it throws is dropped.
    /// It must not end its thread, nor wait for one that (un)registers. A program that it starts inherits the thread's
    /// signal mask: set another between fork and exec, or with posix_spawnattr_setsigmask.
    /// @param function  Null is accepted and never called. The same function may be registered many times.
    /// @param data      Passed on as it is; must stay good until UnregisterCallback or the destructor has returned.
    /// @param handle    Receives what UnregisterCallback wants.
    /// @return ERROR_INVALID_PARAMETER for a null handle or an unknown type; ERROR_NOT_INITIALIZED;
    ///         ERROR_LOW_LEVEL_FAILURE, at once, when called from inside a callback.
    /// @par Threads  Waits for the callback that runs and for a running re-enumeration; goes before waiting callbacks.
    Error RegisterCallback(void (*function)(void*, unsigned int), BusCallbackType type, void* data, void** handle);

    /// Takes a registration back. When it returns the function is not running for it and will not be called again.
    /// @return ERROR_INVALID_PARAMETER for a handle that is null, unknown or was taken back before;
    ///         ERROR_NOT_INITIALIZED; ERROR_LOW_LEVEL_FAILURE, at once, when called from inside a callback.
    /// @par Threads  As for RegisterCallback.
    Error UnregisterCallback(void* handle);

    /// How often a camera with this serial number has arrived or left since start-up (wraps at 2^32).
    /// Setting and counting up throw std::bad_alloc when a new key finds no memory; they have no Error to say it with.
    unsigned int GetGeneration(unsigned int key);
    void SetGeneration(unsigned int key, unsigned int value);
    void IncrementGeneration(unsigned int key);

    // ---- Look-ups --------------------------------------------------------------------------------------------------
    // None changes a list. "Object not initialized." and its kin are ERROR_NOT_INITIALIZED.

    /// Number of cameras, virtual ones included.
    /// @return ERROR_NOT_INITIALIZED, tested first; ERROR_INVALID_PARAMETER for a null count.
    Error GetNumOfCameras(unsigned int* count);

    /// Number of IEEE 1394 nodes that are no cameras. Errors as for GetNumOfCameras.
    Error GetNumOfDevices(unsigned int* count);

    /// Finds the camera at a position of the current list.
    /// @param index  Zero-based. Positions move when cameras come and go: keep the guid, not the index.
    ///               The guid of a GigE camera changes with its address, though (ZevoGuid.h): keep its
    ///               serial number.
    /// @param guid   Receives the identifier; all zero when the index is past the end.
    /// @return ERROR_INVALID_PARAMETER for a null guid, tested first, or an index past the end; ERROR_NOT_INITIALIZED.
    Error GetCameraFromIndex(unsigned int index, ZevoGuid* guid);

    /// The same for devices; guid is left alone when the index is past the end.
    Error GetDeviceFromIndex(unsigned int index, ZevoGuid* guid);

    /// The serial number at that position.
    /// @return ERROR_INVALID_PARAMETER for a null serial, tested first, or an index past the end;
    /// ERROR_NOT_INITIALIZED.
    Error GetCameraSerialNumberFromIndex(unsigned int index, unsigned int* serial);

    /// The interface object of a camera. It lives while the camera stays listed, which the worker may end at any time:
    /// KeepHwInterface gives one that can be kept.
    /// @return ERROR_NOT_INITIALIZED; ERROR_INVALID_PARAMETER for an index past the end, then for a null hw.
    Error GetHwInterfaceFromIndex(unsigned int index, HardwareInterface** hw);

    /// The first camera in list order with that serial number. guid is all zero when there is none.
    /// @return ERROR_INVALID_PARAMETER for a null guid, tested first; ERROR_NOT_INITIALIZED; ERROR_FAILED when there is
    ///         none.
    Error GetCameraFromSerialNumber(unsigned int serial, ZevoGuid* guid);

    /// The same for its interface object, which lives while the camera stays listed.
    /// @return ERROR_NOT_INITIALIZED; ERROR_NOT_FOUND: no such camera; ERROR_INVALID_PARAMETER for a null hw.
    Error GetHwInterfaceFromSerialNumber(unsigned int serial, HardwareInterface** hw);

    /// The camera's handle, searched without any lock and without regard to start-up: only for a caller that keeps the
    /// list from changing.
    /// @return ERROR_INVALID_PARAMETER for a null handle, tested first; ERROR_NOT_FOUND.
    Error GetHandleFromGuid(ZevoGuid guid, BusMasterHandle** handle);

    /// The same as KeepHwInterface for a caller that keeps the object from leaving the list meanwhile: it lives only
    /// while the camera or device stays listed, and the worker may end that at any time.
    /// @return ERROR_NOT_FOUND, also before start-up; ERROR_INVALID_PARAMETER for a null hw.
    Error GetHwInterfaceFromGuid(ZevoGuid guid, HardwareInterface** hw);

    /// The interface object of a camera or, when no camera has that guid, of a device, to read and write its registers.
    /// It stays good for as long as it is held: once the camera has left the list, or the bus master has gone, its
    /// operations answer HAL_GONE, also when the camera comes back, which gets an object of its own. In a forked
    /// process they answer HAL_CLOSED. A device gets another object in each re-enumeration: ask again after BUS_RESET.
    /// @param hw  Receives a share of the object; left alone on failure. Narrow it with dynamic_pointer_cast.
    /// @return ERROR_INVALID_PARAMETER for a null hw, tested first; ERROR_NOT_FOUND, also before start-up.
    /// @par Cost  No bus I/O.
    Error KeepHwInterface(ZevoGuid guid, boost::shared_ptr<HardwareInterface>* hw);

    /// @return ERROR_INVALID_PARAMETER for a null type, tested first; ERROR_NOT_FOUND, also before start-up.
    Error GetInterfaceTypeFromGuid(ZevoGuid guid, InterfaceType* type);

    /// The first GigE camera whose current address (bootstrap register 0x0024) is ip. guid is all zero when there is
    /// none.
    /// @return ERROR_INVALID_PARAMETER for a null guid; ERROR_NOT_FOUND. Works on whatever is listed, start-up or not.
    /// @par Cost  One register read over the network per GigE camera, with the lists locked.
    Error GetCameraFromIPAddress(IPAddress ip, ZevoGuid* guid);

    /// What a listing shows of a camera or device.
    /// @param info  Written on success only, and then whole: fields that its bus does not have are 0 or empty.
    /// @return ERROR_INVALID_PARAMETER for a null info, tested first; ERROR_NOT_FOUND; ERROR_LOW_LEVEL_FAILURE with the
    ///         status when the device is gone meanwhile.
    /// @par Cost  No bus I/O.
    Error GetCameraInfo(ZevoGuid guid, CameraInfo* info);

    // ---- Bus operations --------------------------------------------------------------------------------------------
    // Each acts through the interface object of one camera or device, which it keeps alive meanwhile, and holds no lock
    // while it does. ERROR_NOT_FOUND: nothing listed has that guid, or start-up has not happened.

    /// Asks for a bus reset on the camera's bus and does not wait for it.
    /// @param guid  Not null; not checked.
    /// @return ERROR_NOT_FOUND; ERROR_LOW_LEVEL_FAILURE with the status of the interface.
    Error FireBusReset(ZevoGuid* guid);

    /// Reads one PHY register (IEEE 1394a-2000 5B.1). The selectors go to the interface as they are.
    /// @param a, b, c  Page, port and register address: HAL_1394ReadPhyRegister.
    /// @param value    Not null; not checked.
    /// @return ERROR_NOT_FOUND; ERROR_LOW_LEVEL_FAILURE with the status of the interface.
    /// @par Cost  One PHY request, up to 300 ms.
    Error ReadPhyRegister(ZevoGuid guid, unsigned int a, unsigned int b, unsigned int c, unsigned int* value);

    /// The same for writing, which this computer may have no way to do.
    /// @return ERROR_NOT_FOUND; ERROR_NOT_IMPLEMENTED; ERROR_LOW_LEVEL_FAILURE with the status of the interface.
    Error WritePhyRegister(ZevoGuid guid, unsigned int a, unsigned int b, unsigned int c, unsigned int value);

    /// The link of a USB camera: bits 31..16 its speed in units of 10 Mbit/s, bits 15..8 the port number on its hub,
    /// bits 7..0 the number of hubs above.
    /// @param info  Not null; not checked.
    /// @return ERROR_NOT_FOUND; ERROR_UNSUPPORTED_INTERFACE for a camera on another bus; ERROR_LOW_LEVEL_FAILURE.
    Error GetUsbLinkInfo(ZevoGuid guid, unsigned int* info);

    /// The status of the port that a USB camera is plugged into: wPortStatus in the low half, wPortChange in the high
    /// half (USB 3.2 10.16.2.6, USB 2.0 11.24.2.7). Errors as for GetUsbLinkInfo.
    /// @param status  Not null; not checked.
    /// @par Cost  One request to the hub.
    Error GetUsbPortStatus(ZevoGuid guid, unsigned int* status);

    /// How fast a camera's link is, in Mbit/s: on IEEE 1394 what its PHY can do (800 stands for that and more), on USB
    /// the link as it is now, on GigE the camera's own network link.
    /// @return ERROR_INVALID_PARAMETER for a null megabits, tested first; ERROR_NOT_FOUND; ERROR_UNSUPPORTED_INTERFACE
    ///         for a camera that does not tell; ERROR_LOW_LEVEL_FAILURE with the status of the interface.
    /// @par Cost  GigE: two register reads over the network. Otherwise none, unless the bus has just changed.
    Error GetLinkSpeed(ZevoGuid guid, unsigned int* megabits);

    // ---- GigE addresses --------------------------------------------------------------------------------------------
    // These work on the network, whatever is listed, started or not, and hold no lock.

    /// Gives a camera an IP configuration until its next power cycle, wherever its present one puts it (FORCEIP).
    /// Whether another host has the address already is not asked.
    /// @param ip       0.0.0.0: the camera begins its own configuration anew; ERROR_OK only says that it was sent.
    /// @param gateway  0.0.0.0 for none.
    /// @return ERROR_TIMEOUT when nobody acknowledged; ERROR_LOW_LEVEL_FAILURE with the HAL's status, HAL_BAD_MASK,
    ///         HAL_BAD_ADDRESS or HAL_BAD_GATEWAY when nothing was sent because no camera can have that configuration.
    /// @par Cost  At most three requests of 300 ms each until the acknowledge, then up to 2 s until the camera answers.
    Error ForceIPAddressToCamera(MACAddress mac, IPAddress ip, IPAddress subnet, IPAddress gateway);

    /// Gives every camera that is on a wrong subnet a free address of the subnet it is heard on.
    /// @return ERROR_LOW_LEVEL_FAILURE with the first failing status, after all cameras had their turn.
    ///         HAL_NO_ACKNOWLEDGE of a camera counts as that, too; there is no ERROR_TIMEOUT
    ///         here.
    /// @par Cost  A discovery window (1 s by default) and 0.3 s, then all cameras at once: up to 900 ms until the
    ///            acknowledges and 2 s until they answer.
    Error ForceAllIPAddressesAutomatically();

    /// The same for the camera with that serial number.
    /// @return ERROR_INVALID_PARAMETER for 0; ERROR_TIMEOUT when it did not acknowledge;
    ///         ERROR_LOW_LEVEL_FAILURE with the HAL's status: HAL_GONE when no camera has that
    ///         number, HAL_AMBIGUOUS when several have it.
    Error ForceAllIPAddressesAutomatically(unsigned int serialNumber);

    /// Finds every GigE camera that answers a broadcast, those on a wrong subnet too.
    /// @param cameras    Receives serial number, interface type, GigE Vision version, MAC and IP configuration, vendor,
    ///                   model and user-defined name of each. No other field is written and texts get no terminator:
    ///                   pass fresh records.
    /// @param arraySize  In: room in cameras. Out: how many answered, also when that is more than there was room for.
    /// @return ERROR_INVALID_PARAMETER for a null or no room; ERROR_BUFFER_TOO_SMALL, cameras untouched;
    ///         ERROR_LOW_LEVEL_FAILURE with the HAL's status.
    /// @par Cost  The discovery window, 1 s by default.
    Error DiscoverGigECameras(CameraInfo* cameras, unsigned int* arraySize);

    /// Whether this application can control a GigE camera: nobody does, or this application does already.
    /// @param available  Not null; not checked. False as well when the last of three register reads failed.
    /// @return ERROR_INVALID_PARAMETER for a null guid; ERROR_UNSUPPORTED_INTERFACE for an unknown guid and for a
    /// camera
    ///         on another bus; ERROR_REGISTER_FAILED.
    /// @par Cost  One to three register reads over the network.
    Error QueryGigECameraCCPStatus(ZevoGuid* guid, bool* available);

    // ---- Topology --------------------------------------------------------------------------------------------------

    /// How the cameras are connected: the computer, below it one node per kind of bus that has cameras (IEEE 1394, USB
    /// 2, USB 3, GigE), below that the cameras, or the trees of the buses with the cameras' guids in them. A camera
    /// whose bus cannot be read is left out.
    /// @param node  Receives the tree through its assignment; untouched on failure.
    /// @return ERROR_INVALID_PARAMETER for a null node, tested first; ERROR_NOT_INITIALIZED.
    /// @throws std::bad_alloc: the one operation that lets it out.
    /// @par Threads  Any. The lists are locked throughout.
    /// @par Cost  One reading of each IEEE 1394 bus and USB 3 host controller that has cameras. The tree of a
    /// controller
    ///            is bounded (131072 nodes), whatever its driver reports.
    Error GetTopology(TopologyNode* node);

    /// True exactly when the two handles have equal guids.
    static bool AreDevicesEqual(BusMasterHandle* first, BusMasterHandle* second);

private:
    friend struct BusMasterTestAccess;

    struct CallbackData;
    struct CallbackThreadData;
    struct Members;       // BusMasterMembers.h: lists, locks and threads
    class RegistryLock;   // callbacks.cpp
    class Worker;         // worker.cpp
    class TreeOfCameras;  // topology.cpp

    using HandleList = std::vector<BusMasterHandle*>;
    using PortList = std::vector<TopologyNode::PortType>;
    using UsbTiers = std::array<std::vector<UsbSelfId>, 5>;

    // Listings of one bus; each appends to the list only when the whole bus succeeded. Enumeration threads.
    NIMBREL2_INTERNAL static Error Get1394Cameras(HandleList* cameras);
    NIMBREL2_INTERNAL static Error GetUSBCameras(HandleList* cameras);
    NIMBREL2_INTERNAL static Error GetGigECameras(HandleList* cameras);
    NIMBREL2_INTERNAL static Error GetVirtualCameras(HandleList* cameras);
    NIMBREL2_INTERNAL static Error GetDevices(HandleList* devices);
    NIMBREL2_INTERNAL static Error Get1394Devices(HandleList* devices);

    // Releasing. No lock is taken: the list must not be in another thread's hands.
    NIMBREL2_INTERNAL static void FreeCamera(BusMasterHandle* handle);
    NIMBREL2_INTERNAL static void FreeCameraList(HandleList* list);
    NIMBREL2_INTERNAL static void FreeDeviceList(HandleList* list);
    NIMBREL2_INTERNAL static void Free1394HALCameras(void** halHandles, unsigned int end, unsigned int start);
    NIMBREL2_INTERNAL static void Free1394HALDevices(void** halHandles, unsigned int end, unsigned int start);
    NIMBREL2_INTERNAL static void FreeUsbHALDevices(void** halHandles, unsigned int end, unsigned int start);
    NIMBREL2_INTERNAL static void FreeGigEHALDevices(void** halHandles, unsigned int end, unsigned int start);

    // Reconciliation. The caller holds m_busMasterMutex, or no other thread can see the lists.
    NIMBREL2_INTERNAL static Error UpdateCameraList(HandleList& current, HandleList& fresh, HandleList& arrived,
                                                    HandleList& removed);
    NIMBREL2_INTERNAL static bool ReassignNode(BusMasterHandle* from, BusMasterHandle* to);
    NIMBREL2_INTERNAL static bool ReassignBusNumber(BusMasterHandle* from, BusMasterHandle* to);
    NIMBREL2_INTERNAL static bool ReenableIso(BusMasterHandle* handle);

    // Trees: the plain functions of src/topology. No lock.
    NIMBREL2_INTERNAL static void ParseSelfIdPacketZero(const SelfIdPacket_t* packet, PortList& ports,
                                                        std::uint32_t& childCount);
    NIMBREL2_INTERNAL static void ParseSelfIdPacketMore(const SelfIdPacket_t* packet, PortList& ports,
                                                        std::uint32_t& childCount);
    NIMBREL2_INTERNAL static Error ParseSelfIdPackets(TopologyNode* node, std::uint64_t count,
                                                      const SelfIdPacket_t* packets);
    NIMBREL2_INTERNAL static void BuildUsbTopology(TopologyNode* parent, std::uint64_t parentRoute,
                                                   const UsbTiers* tiers, unsigned int tier);
    NIMBREL2_INTERNAL static void AddNodesAsChildren(TopologyNode& parent, std::vector<TopologyNode>& nodes);
    NIMBREL2_INTERNAL static void AddPortsAsChildren(TopologyNode& parent, const PortList& ports);

    // Callback threads, and the destructor.
    NIMBREL2_INTERNAL static void* SignalCallbackThread(void* threadData, std::set<CallbackData*>& liveSet,
                                                        boost::mutex& setMutex);
    /// False when a callback kept the mutex for longer than the destructor may wait; nothing was freed then.
    NIMBREL2_INTERNAL static bool FreeCallbackList(std::list<CallbackData*>* list, std::set<CallbackData*>& liveSet,
                                                   boost::mutex& setMutex);

    /// What the HAL calls on its delivery threads, with the BusMaster as context.
    NIMBREL2_INTERNAL static void HALBusEventCallback(HALBusEvent event, void* context, HALInterfaceType interfaceType,
                                                      unsigned int first, unsigned int second, unsigned int third);

    NIMBREL2_INTERNAL static std::atomic<bool> m_enumerateVirtualDevices;

    /// Shared with every thread that runs on it, so that a hung or late thread never touches freed memory.
    boost::shared_ptr<Members> m_members;
};

extern template class Singleton<BusMaster>;

}  // namespace Nimbrel2

#endif
