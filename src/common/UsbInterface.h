// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_USBINTERFACE_H
#define NIMBREL2_COMMON_USBINTERFACE_H

#include "common/HardwareInterface.h"
#include "common/KeptReading.h"
#include "hal/Export.h"

namespace Nimbrel2 {

/// A camera on USB 2 or USB 3. Threads and results: HardwareInterface.
class NIMBREL2_API UsbInterface : public HardwareInterface {
public:
    /// Takes over the entry.
    explicit UsbInterface(void* entry);

    std::uint32_t ReleaseCamera() override;
    std::uint32_t ReleaseDevice() override;
    std::uint32_t GetConfigInfo(std::uint32_t* vidPid, std::uint32_t* busAndAddress, std::uint32_t* serialNumber,
                                std::uint32_t* speed, std::uint32_t* version, char* vendor, char* model,
                                std::uint32_t* vendorSize, std::uint32_t* modelSize) override;
    int GetUsbSelfIds(unsigned int* deviceId, std::uint64_t* hostKey, std::uint64_t* count,
                      UsbSelfId* records) override;
    std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t value,
                                std::uint32_t flags) override;
    std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t* value) override;
    /// USB 3 at SuperSpeed and above, USB 2 below: the link as it is now, the last one known when the camera is gone.
    InterfaceType GetInterfaceType() override;
    std::uint32_t FireBusReset() override;
    std::uint32_t GetCameraInfo(CameraInfo* info) override;
    std::uint32_t GetLinkSpeed(std::uint32_t* megabits) override;

    /// Link information and port status of the camera's USB port (HAL_UsbGetLinkInfo, HAL_UsbGetPortStatus).
    std::uint32_t GetLinkInfo(unsigned int* link);
    std::uint32_t GetPortStatus(unsigned int* status);

private:
    std::atomic<InterfaceType> m_lastType{INTERFACE_USB_2};
    KeptReading<UsbSelfId> m_tree;
};

}  // namespace Nimbrel2

#endif
