// SPDX-License-Identifier: Apache-2.0
// A HAL for tests: every HAL_ function forwards to a hook that a test can replace; unreplaced, it plays the devices
// that the test has attached. Every call is recorded. Any thread; one mutex, never held while a hook, a gate or a
// callback runs.
#ifndef NIMBREL2_TESTS_SUPPORT_SCRIPTEDHAL_H
#define NIMBREL2_TESTS_SUPPORT_SCRIPTEDHAL_H

#include <atomic>
#include <bit>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hal/HAL.h"
#include "tests/support/Gate.h"

/// Calls X(name) for every function of HAL.h.
#define NIMBREL2_FOR_EACH_HAL_FUNCTION(X) \
    X(HAL_InitLibrary)                    \
    X(HAL_CleanupLibrary)                 \
    X(HAL_1394GetCameras)                 \
    X(HAL_1394GetVirtualCameras)          \
    X(HAL_1394GetDevices)                 \
    X(HAL_UsbGetCameras)                  \
    X(HAL_GigEGetCameras)                 \
    X(HAL_1394FreeCamera)                 \
    X(HAL_1394FreeDevice)                 \
    X(HAL_UsbFreeCamera)                  \
    X(HAL_GigEFreeCamera)                 \
    X(HAL_GigEGetCameraIpAddress)         \
    X(HAL_1394RegisterBusEvents)          \
    X(HAL_UsbRegisterBusEvents)           \
    X(HAL_GigERegisterBusEvents)          \
    X(HAL_1394DeregisterBusEvents)        \
    X(HAL_UsbDeregisterBusEvents)         \
    X(HAL_GigEDeregisterBusEvents)        \
    X(HAL_GvcpDiscovery)                  \
    X(HAL_GvcpForceIp)                    \
    X(HAL_GvcpForceIpAuto)                \
    X(HAL_GvcpAutoForceIpToCamera)        \
    X(HAL_1394GetConfigInfo)              \
    X(HAL_1394GetDeviceInfo)              \
    X(HAL_1394GetNode)                    \
    X(HAL_1394ReadRegister)               \
    X(HAL_1394WriteRegister)              \
    X(HAL_1394ReadPhyRegister)            \
    X(HAL_1394WritePhyRegister)           \
    X(HAL_1394FireBusReset)               \
    X(HAL_1394GetSelfIds)                 \
    X(HAL_1394GetNodeSerialNumbers)       \
    X(HAL_UsbGetConfigInfo)               \
    X(HAL_UsbGetSerialText)               \
    X(HAL_UsbGetSpeed)                    \
    X(HAL_UsbReadRegister)                \
    X(HAL_UsbWriteRegister)               \
    X(HAL_UsbFireBusReset)                \
    X(HAL_UsbGetLinkInfo)                 \
    X(HAL_UsbGetPortStatus)               \
    X(HAL_UsbGetSelfIds)                  \
    X(HAL_GigEGetConfigInfo)              \
    X(HAL_GigEGetDiscoveryRecord)         \
    X(HAL_GigEReadRegister)               \
    X(HAL_GigEWriteRegister)              \
    X(HAL_GigEIsInMonitorMode)            \
    X(HAL_GigEGetLocalApplicationPort)    \
    X(HAL_GigEGetLocalApplicationIpAddress)

namespace Nimbrel2::Testing {

/// One replaceable function for each of HAL.h, named as there.
struct HalHooks {
// NOLINTNEXTLINE(bugprone-macro-parentheses): a name that is declared takes none
#define NIMBREL2_DECLARE_HOOK(name) std::function<decltype(::name)> name;
    NIMBREL2_FOR_EACH_HAL_FUNCTION(NIMBREL2_DECLARE_HOOK)
#undef NIMBREL2_DECLARE_HOOK
};

/// A call as it came in.
struct HalCall {
    std::string function;
    /// In the order of HAL.h: numbers; entries, contexts, registrations and other addresses as numbers; for a pointer
    /// to a number what it pointed to at the call (so a count is the capacity), 0 for a null one.
    std::vector<std::uint64_t> arguments;
    std::thread::id thread;
    bool returned = false;
    std::uint32_t status = 0;  ///< When it has returned.

    void* Entry() const {
        return arguments.empty() ? nullptr : std::bit_cast<void*>(static_cast<std::uintptr_t>(arguments[0]));
    }
};

enum class DeviceKind { FireWireCamera, FireWireDevice, VirtualCamera, UsbCamera, GigECamera };

/// A device that the HAL plays. Set it up before other threads can see it, or inside ScriptedHal::Change.
struct ScriptedDevice {
    DeviceKind kind = DeviceKind::FireWireCamera;
    /// Statuses that functions on this device's entries answer instead of doing their work, by function name.
    std::map<std::string, std::uint32_t> statuses;

    // What the ...GetConfigInfo functions tell.
    std::uint32_t serialNumber = 0;
    std::uint32_t config[4] = {0, 0, 0, 0};  ///< The first, second, fourth and fifth number.
    std::string vendor = "Vendor";
    std::string model = "Model";
    bool unterminatedTexts = false;  ///< Fills the text buffers to their last byte, against the contract.

    std::map<std::uint64_t, std::uint32_t> registers;  ///< Also GVCP registers. Unknown: HAL_NO_SUCH_REGISTER.

    // IEEE 1394.
    std::uint16_t node = 0;
    std::uint16_t busNumber = 0;
    std::uint32_t info[3] = {0, 0, 0};
    bool countInfo3FromListing = true;                    ///< info 3 is 0xFFFFFFFF minus the place in the listing.
    std::map<std::uint64_t, std::uint32_t> phyRegisters;  ///< By page << 32 | port << 16 | address.
    std::vector<SelfIdPacket_t> selfIds;
    std::uint64_t busKey = 0;
    std::uint32_t generation = 0;  ///< Also of the USB tree.
    std::vector<std::uint32_t> nodeSerialNumbers;

    // USB.
    std::string serialText;
    std::uint32_t speed = 5000;
    std::uint32_t linkInfo = 0;
    std::uint32_t portStatus = 0;
    std::vector<UsbSelfId> tree;
    std::uint32_t deviceId = 0;
    std::uint64_t hostKey = 0;

    // GigE. The current address is register 0x24 as well as ipAddress.
    std::uint32_t ipAddress = 0;
    std::uint32_t monitor = 0;
    GvcpDiscoveryRecord record{};
    std::uint32_t localPort = 0;
    std::uint32_t localIpAddress = 0;
};

/// A failure that was asked for; fired once it came.
struct Injection {
    std::atomic<bool> fired{false};
};

/// The HAL of the process while it lives; without one every function answers HAL_CLOSED. One at a time. A call that is
/// still running when it is destroyed keeps what it needs.
class ScriptedHal {
public:
    using DevicePointer = std::shared_ptr<ScriptedDevice>;

    ScriptedHal();
    /// Opens every gate.
    ~ScriptedHal();
    ScriptedHal(const ScriptedHal&) = delete;
    ScriptedHal& operator=(const ScriptedHal&) = delete;

    // ---- Devices: listed in the order in which they were attached -------------------------------------------------

    DevicePointer AddFireWireCamera(std::uint32_t serialNumber, std::uint16_t node = 0, std::uint16_t busNumber = 0);
    /// A node that is no camera; its guid is made of the two halves of its EUI-64.
    DevicePointer AddFireWireDevice(std::uint32_t euiHigh, std::uint32_t euiLow);
    DevicePointer AddVirtualCamera(std::uint32_t serialNumber);
    DevicePointer AddUsbCamera(std::uint32_t serialNumber, std::uint32_t speed = 5000);
    DevicePointer AddGigECamera(std::uint32_t serialNumber, std::uint32_t ipAddress);
    /// Puts a device (back) in its listing, at the end or at an index.
    void Attach(const DevicePointer& device, std::size_t index = SIZE_MAX);
    void Detach(const DevicePointer& device);
    void DetachAll();
    /// Runs a change of devices while no HAL function looks at them.
    void Change(const std::function<void()>& change);

    // ---- Hooks -----------------------------------------------------------------------------------------------------

    /// Replaces one hook: hal.Replace(&HalHooks::HAL_UsbGetCameras, [](void** entries, uint64_t* count) {...}).
    template <class Function, class Hook>
    void Replace(std::function<Function> HalHooks::*hook, Hook function) {
        Change([&] { MutableHooks().*hook = std::move(function); });
    }
    /// What plays the devices, for hooks that want to do that and something else.
    const HalHooks& Defaults() const;

    // ---- Failing and blocking --------------------------------------------------------------------------------------

    /// The n-th call of a function from now on (1: the next; 0: every one) answers this status. Free and deregister
    /// functions do their work all the same; the others do not.
    std::shared_ptr<Injection> Fail(const std::string& function, unsigned int nth, std::uint32_t status);
    /// The n-th call from now on of any function but those that start, end, free and deregister.
    std::shared_ptr<Injection> FailAny(unsigned int nth, std::uint32_t status);
    void FailNothing();

    /// The n-th call of a function from now on (0: every one) waits at the gate, after it was recorded.
    std::shared_ptr<Gate> Block(const std::string& function, unsigned int nth = 1);

    // ---- Calls -----------------------------------------------------------------------------------------------------

    std::vector<HalCall> Calls() const;
    std::vector<HalCall> Calls(const std::string& function) const;
    /// The names of the calls so far, in order.
    std::vector<std::string> CallNames() const;
    std::size_t Count(const std::string& function) const;
    /// Waits until a function was called that often since the start or the last ClearCalls. False when it was not.
    bool WaitForCalls(const std::string& function, std::size_t times,
                      std::chrono::milliseconds timeout = TestDeadline) const;
    void ClearCalls();

    // ---- Entries ---------------------------------------------------------------------------------------------------

    /// Where an entry came from; null for an unknown one.
    DevicePointer DeviceOf(void* entry) const;
    /// Every entry of a device handed out so far, oldest first.
    std::vector<void*> EntriesOf(const DevicePointer& device) const;
    /// How often an entry was given back.
    unsigned int TimesFreed(void* entry) const;
    /// Entries of devices in the order in which they were given back.
    std::vector<DevicePointer> FreedDevices() const;
    std::size_t EntriesOutstanding() const;

    /// Fails the test unless every entry was given back exactly once, with the function of its kind, after the last
    /// operation on it; entries of the devices in leftToTheHal must never have been given back.
    void ExpectAllEntriesGivenBackOnce(const std::vector<DevicePointer>& leftToTheHal = {}) const;
    /// The same without the demand that they have come back already.
    void ExpectNoMisuse() const;

    // ---- Events ----------------------------------------------------------------------------------------------------

    /// Calls every function that is registered for the bus, on this thread. @return how many there were.
    unsigned int Raise(HALBusEvent event, HALInterfaceType bus, unsigned int first = 0, unsigned int second = 0,
                       unsigned int third = 0) const;
    /// Registrations that have not been given back.
    std::size_t RegistrationsOutstanding() const;
    /// The context of the newest registration for a bus; null when there is none.
    void* RegisteredContext(HALInterfaceType bus) const;

    struct State;

private:
    HalHooks& MutableHooks();
    DevicePointer Add(DeviceKind kind, std::uint32_t serialNumber);

    std::shared_ptr<State> m_state;
};

}  // namespace Nimbrel2::Testing

#endif
