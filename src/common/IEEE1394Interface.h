// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_IEEE1394INTERFACE_H
#define NIMBREL2_COMMON_IEEE1394INTERFACE_H

#include "common/HardwareInterface.h"
#include "common/KeptReading.h"
#include "hal/Export.h"

namespace Nimbrel2 {

/// A camera or device on an IEEE 1394 bus, or a virtual camera. Threads and results: HardwareInterface.
class NIMBREL2_API IEEE1394Interface : public HardwareInterface {
public:
    /// Takes over the entry. Node and bus number are read now and kept; register operations go by identity, not by
    /// these numbers.
    explicit IEEE1394Interface(void* entry);

    std::uint32_t ReleaseCamera() override;
    std::uint32_t ReleaseDevice() override;
    std::uint32_t GetConfigInfo(std::uint32_t* euiHigh, std::uint32_t* nodeAddress, std::uint32_t* serialNumber,
                                std::uint32_t* card, std::uint32_t* unitVersion, char* vendor, char* model,
                                std::uint32_t* vendorSize, std::uint32_t* modelSize) override;
    int GetSelfIds(unsigned int* generation, std::uint64_t* busKey, std::uint64_t* count,
                   SelfIdPacket_t* packets) override;
    std::uint32_t GetNodeSerialNumbers(std::vector<unsigned int>* serialNumbers) override;
    std::uint32_t GetDeviceInfo(std::uint32_t* info1, std::uint32_t* info2, std::uint32_t* info3) override;
    std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t value,
                                std::uint32_t flags) override;
    std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t* value) override;
    std::uint32_t ReadPhyRegister(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                  std::uint32_t* value) override;
    std::uint32_t WritePhyRegister(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                   std::uint32_t value) override;
    InterfaceType GetInterfaceType() override;
    std::uint32_t FireBusReset() override;
    std::uint32_t GetCameraInfo(CameraInfo* info) override;
    std::uint32_t GetLinkSpeed(std::uint32_t* megabits) override;

    /// Phy id and bus number as last read or set. Always HAL_OK; 0 when they could not be read.
    std::uint32_t GetCameraNode(unsigned short* node);
    void SetCameraNode(unsigned short node);
    std::uint32_t GetCameraBusNum(unsigned short* busNumber);
    void SetCameraBusNum(unsigned short busNumber);

    /// True while the camera's user has isochronous transmission running; a bus error switches it on again.
    std::atomic<bool> isoEnabled{false};

private:
    std::atomic<unsigned short> m_node{0};
    std::atomic<unsigned short> m_busNumber{0};
    KeptReading<SelfIdPacket_t> m_selfIds;
};

}  // namespace Nimbrel2

#endif
