// SPDX-License-Identifier: Apache-2.0
// A whole computer in memory: its buses, what happens to them, and what its drivers see.
#ifndef NIMBREL2_PLATFORM_RIG_RIG_H
#define NIMBREL2_PLATFORM_RIG_RIG_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Drivers.h"
#include "platform/base/Mutex.h"
#include "platform/rig/FireWireModel.h"
#include "platform/rig/GigEModel.h"
#include "platform/rig/RigDescription.h"
#include "platform/rig/UsbModel.h"

namespace Nimbrel2::Platform {

/// The FireWire buses, USB hosts and network interfaces of a computer.
struct RigDescription {
    std::vector<FireWireBusDescription> fireWire;
    std::vector<UsbHostDescription> usb;
    std::vector<NetworkInterfaceDescription> gigE;
    /// Serial numbers of the virtual IEEE 1394 cameras; one that a real camera has is replaced by the next free number.
    std::vector<std::uint32_t> virtualCameras;
};

/// What one call of a HAL function is made to do.
struct RigFault {
    std::string function;                ///< "HAL_1394GetCameras" and so on.
    unsigned int call = 1;               ///< Which call from now on, the first being 1.
    std::uint32_t status = HAL_OK;       ///< What it answers; HAL_OK: what it would have answered.
    std::chrono::milliseconds delay{0};  ///< How long it takes on top.
};

/// The functions that a fault may name.
const std::vector<std::string>& RigFaultFunctions();

/// The computer that a rig description makes. Lives as long as anybody plays with it, across any number of
/// HAL_InitLibrary and HAL_CleanupLibrary; its drivers hold it.
/// @par Threads  Any. One mutex guards the models; their state is reported with it held, which sinks allow.
class Rig {
public:
    /// Why the description is no computer; empty: it is one. Also what only shows across buses: a name taken twice, a
    /// card without a bus.
    static std::vector<RigProblem> Validate(const RigDescription& description);

    /// @pre Validate found nothing.
    explicit Rig(RigDescription description);

    // ---- What happens to the computer. An empty result: done; else why it cannot be. --------------------------------
    std::optional<std::string> Plug(const std::string& device);
    std::optional<std::string> Unplug(const std::string& device);
    /// A FireWire device onto a port of another PHY, a USB device onto a port of a hub or host, a GigE camera onto a
    /// network interface (to.phy names it, ports mean nothing). Unplugged devices are plugged in by it.
    std::optional<std::string> Move(const std::string& device, unsigned int ownPort, const CableEnd& to);
    std::optional<std::string> SetLink(const std::string& interfaceName, bool up);
    std::optional<std::string> SetAddress(const std::string& camera, std::uint32_t address, std::uint32_t mask,
                                          std::uint32_t gateway);
    /// The camera's control channel is taken by another host, or given back by it.
    std::optional<std::string> Hold(const std::string& camera, const Simulated::ControlOwner& owner);
    std::optional<std::string> Release(const std::string& camera);
    /// From now on the camera's answers are late, lost or doubled.
    std::optional<std::string> SetFaults(const std::string& camera, const Simulated::Faults& faults);
    /// A bus reset on the FireWire bus or USB host of that name, count times in a row.
    std::optional<std::string> ResetBus(const std::string& bus, unsigned int count = 1);
    /// A bus error on the FireWire bus or USB host of that name.
    std::optional<std::string> FailBus(const std::string& bus);
    void AddFault(RigFault fault);
    /// Faults whose call has not come yet; `call` counts from now.
    std::vector<RigFault> GetFaultsLeft() const;

    /// Virtual time: nothing is waited for, delays of faults and bursts of resets included. Off at first; to be chosen
    /// before the HAL starts.
    void SetFast(bool fast);

    // ---- For the drivers --------------------------------------------------------------------------------------------
    /// Where the state of a bus kind is reported from now on, beginning with how it is; null: nowhere.
    void ConnectFireWire(BusEventSink* sink);
    void ConnectUsb(BusEventSink* sink);
    void ConnectGigE(BusEventSink* sink);

    /// At the head of each HAL function: waits as a fault says and answers its status, HAL_OK without one.
    std::uint32_t Enter(const char* function);

    /// As long as something takes on the wire; not in virtual time.
    void Wait(std::chrono::milliseconds time);

    /// Runs a function on the models with the rig locked: f(std::vector<FireWireModel>&).
    template <class Function>
    auto WithFireWire(Function function) {
        const LockGuard lock(m_mutex);
        return function(m_fireWire);
    }
    template <class Function>
    auto WithUsb(Function function) {
        const LockGuard lock(m_mutex);
        return function(m_usb);
    }
    template <class Function>
    auto WithGigE(Function function) {
        const LockGuard lock(m_mutex);
        return function(m_gigE);
    }

    /// The same for a listing. @return the bus kind at that moment, which has been reported.
    template <class Function>
    BusState ListFireWire(Function function) {
        const LockGuard lock(m_mutex);
        function(m_fireWire);
        Report(m_fireWireReports, &Rig::FireWireState);
        return FireWireState();
    }
    template <class Function>
    BusState ListUsb(Function function) {
        const LockGuard lock(m_mutex);
        function(m_usb);
        Report(m_usbReports, &Rig::UsbState);
        return UsbState();
    }
    template <class Function>
    BusState ListGigE(Function function) {
        const LockGuard lock(m_mutex);
        function(m_gigE);
        Report(m_gigEReports, &Rig::GigEState);
        return GigEState();
    }

    /// One map per bus or host, for BusMap.h.
    std::vector<BusMap> DescribeFireWire() const;
    std::vector<BusMap> DescribeUsb() const;

    /// Resets the card's FireWire bus on behalf of the node. HAL_GONE when it is not on it.
    std::uint32_t ResetBusOf(unsigned int card, std::uint64_t eui64);
    /// Resets the USB host that the device is attached to.
    std::uint32_t ResetHostOf(const std::string& device);

    std::uint32_t ForceAddress(const GigEAddress& address, ForceIpResult* result);
    /// Those of the plans that give an address, all before anybody hears of it.
    std::uint32_t ApplyAddresses(std::vector<AddressPlan>* plans);

    /// Serial numbers of virtual cameras, none of them in taken.
    std::vector<std::uint32_t> VirtualSerialNumbers(const std::vector<std::uint64_t>& taken) const;

private:
    /// Who hears of a bus kind, and how often it was reset.
    struct Reports {
        BusEventSink* sink = nullptr;
        std::uint64_t resets = 0;
    };

    FireWireModel* FireWireOf(const std::string& device) NIMBREL2_REQUIRES(m_mutex);
    UsbModel* UsbOf(const std::string& device) NIMBREL2_REQUIRES(m_mutex);
    BusState FireWireState() const NIMBREL2_REQUIRES(m_mutex);
    BusState UsbState() const NIMBREL2_REQUIRES(m_mutex);
    BusState GigEState() const NIMBREL2_REQUIRES(m_mutex);
    /// A change is told also when there is no memory to say which: a rig has no thread that could try again.
    void Report(const Reports& reports, BusState (Rig::*state)() const) const noexcept NIMBREL2_REQUIRES(m_mutex);
    template <class Change>
    bool ChangeFireWire(Change change) NIMBREL2_REQUIRES(m_mutex);
    template <class Change>
    bool ChangeUsb(Change change) NIMBREL2_REQUIRES(m_mutex);
    template <class Change>
    bool ChangeGigE(Change change) NIMBREL2_REQUIRES(m_mutex);
    template <class Change>
    std::optional<std::string> ChangeGigECamera(const std::string& camera, Change change) NIMBREL2_EXCLUDES(m_mutex);

    mutable Mutex m_mutex;  // Outermost: sinks take theirs under it.
    std::vector<FireWireModel> m_fireWire NIMBREL2_GUARDED_BY(m_mutex);
    std::vector<std::string> m_fireWireNames NIMBREL2_GUARDED_BY(m_mutex);
    std::vector<UsbModel> m_usb NIMBREL2_GUARDED_BY(m_mutex);
    std::vector<std::string> m_usbNames NIMBREL2_GUARDED_BY(m_mutex);
    GigEModel m_gigE NIMBREL2_GUARDED_BY(m_mutex);
    std::vector<std::uint32_t> m_virtualCameras NIMBREL2_GUARDED_BY(m_mutex);
    Reports m_fireWireReports NIMBREL2_GUARDED_BY(m_mutex);
    Reports m_usbReports NIMBREL2_GUARDED_BY(m_mutex);
    Reports m_gigEReports NIMBREL2_GUARDED_BY(m_mutex);
    std::vector<RigFault> m_faults NIMBREL2_GUARDED_BY(m_mutex);
    bool m_fast NIMBREL2_GUARDED_BY(m_mutex) = false;
};

}  // namespace Nimbrel2::Platform

#endif
