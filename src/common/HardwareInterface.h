// SPDX-License-Identifier: Apache-2.0
// The interface object of a camera or device: what the bus master calls to act on one device, whatever its bus.
#ifndef NIMBREL2_COMMON_HARDWAREINTERFACE_H
#define NIMBREL2_COMMON_HARDWAREINTERFACE_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "common/CameraInfo.h"
#include "common/HalEntry.h"
#include "common/InterfaceType.h"
#include "hal/Export.h"
#include "hal/HAL.h"

namespace Nimbrel2 {

/// One device, by the HAL entry that names it. The device is found anew at each operation, so the object stays good for
/// as long as the device is listed, also when it was unplugged and plugged in again before anybody looked.
///
/// All operations but the getters return a HALStatus: 0, or why not (HAL.h, at the function of the same name). Once
/// ReleaseCamera or ReleaseDevice has been called every operation that needs the device answers HAL_GONE. An operation
/// that the bus of the device does not have answers HAL_NOT_SUPPORTED (a PHY write: HAL_PHY_WRITE_NOT_IMPLEMENTED).
/// In a process that was forked after the object was made they answer HAL_CLOSED.
/// @par Threads  Any; operations on one object may run at the same time. No lock is held during a HAL call.
class NIMBREL2_API HardwareInterface {
public:
    virtual ~HardwareInterface() = default;
    HardwareInterface(const HardwareInterface&) = delete;
    HardwareInterface& operator=(const HardwareInterface&) = delete;

    /// Gives the HAL entry back, when the last operation in flight ends. The destructor does not. For the bus master to
    /// call when the device has left the list: an application that calls it makes the device useless to everybody.
    virtual std::uint32_t ReleaseCamera() = 0;
    virtual std::uint32_t ReleaseDevice() = 0;

    /// Identification, without bus I/O: five numbers of which the third is the serial number, vendor and model. The
    /// sizes come in as the buffers' capacities and go out as the lengths of the texts.
    virtual std::uint32_t GetConfigInfo(std::uint32_t* first, std::uint32_t* second, std::uint32_t* serialNumber,
                                        std::uint32_t* fourth, std::uint32_t* fifth, char* vendor, char* model,
                                        std::uint32_t* vendorSize, std::uint32_t* modelSize) = 0;

    /// The self-ID stream of the device's bus. With null packets a size query: the bus is read and the reading kept.
    /// With a buffer of *count packets the reading is handed out, or HAL_BUS_CHANGED when it no longer holds.
    /// @param generation  The bus generation of the reading.
    /// @param busKey      Tells buses apart.
    virtual int GetSelfIds(unsigned int* generation, std::uint64_t* busKey, std::uint64_t* count,
                           SelfIdPacket_t* packets);

    /// The devices below the camera's USB host controller; query and fill as for GetSelfIds. 20 (HAL_NO_TREE): none.
    virtual int GetUsbSelfIds(unsigned int* deviceId, std::uint64_t* hostKey, std::uint64_t* count, UsbSelfId* records);

    /// Fills a list that is already as long as the caller wants it: the serial number at each phy id.
    virtual std::uint32_t GetNodeSerialNumbers(std::vector<unsigned int>* serialNumbers);

    /// What a device's guid is made of (HAL_1394GetDeviceInfo).
    virtual std::uint32_t GetDeviceInfo(std::uint32_t* info1, std::uint32_t* info2, std::uint32_t* info3);

    /// One register of the device itself. selector is 0xFFFFFFFF and flags 0: the device of this object, plainly.
    virtual std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t value,
                                        std::uint32_t flags) = 0;
    virtual std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t* value) = 0;

    /// One PHY register: page, port, register address (IEEE 1394a-2000 5B.1).
    virtual std::uint32_t ReadPhyRegister(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                          std::uint32_t* value);
    virtual std::uint32_t WritePhyRegister(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                           std::uint32_t value);

    /// The kind of bus. Never fails; the last one known when the device is gone.
    virtual InterfaceType GetInterfaceType() = 0;

    virtual std::uint32_t FireBusReset();

    /// What a listing shows of the device: texts, serial number and, for GigE, versions and addresses. No bus I/O.
    /// @param info  Written on success only, and then whole: what the bus does not have is 0 or empty.
    virtual std::uint32_t GetCameraInfo(CameraInfo* info) = 0;

    /// How fast the device's link is, in Mbit/s. HAL_NOT_SUPPORTED: the device does not tell.
    ///   IEEE 1394  what its PHY can do, from the self-IDs of the bus; 800 stands for that and more. No bus I/O unless
    ///              the bus has changed.
    ///   USB        the link as it is now. No bus I/O.
    ///   GigE       the camera's own link, from its optional link speed register: two register reads.
    virtual std::uint32_t GetLinkSpeed(std::uint32_t* megabits);

    // Bus events that named this device, counted as they come in. Nothing reads them but users.
    std::atomic<std::uint32_t> arrivalCount{0};
    std::atomic<std::uint32_t> removalCount{0};
    std::atomic<std::uint32_t> busResetCount{0};
    std::atomic<std::uint32_t> busErrorCount{0};

protected:
    explicit HardwareInterface(void* entry) noexcept : m_entry(entry) {}

    HalEntry m_entry;

    /// For the library's own classes. Calls a HAL function with the entry first; HAL_GONE once that was given back.
    template <class Function, class... Arguments>
    std::uint32_t OnEntry(Function function, Arguments... arguments) {
        const HalEntry::Use use(m_entry);
        return use ? function(use.Get(), arguments...) : static_cast<std::uint32_t>(HAL_GONE);
    }
};

}  // namespace Nimbrel2

#endif
