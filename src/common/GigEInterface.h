// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_GIGEINTERFACE_H
#define NIMBREL2_COMMON_GIGEINTERFACE_H

#include "common/HardwareInterface.h"
#include "hal/Export.h"

namespace Nimbrel2 {

/// A GigE Vision camera. Threads and results: HardwareInterface.
class NIMBREL2_API GigEInterface : public HardwareInterface {
public:
    /// Takes over the entry.
    explicit GigEInterface(void* entry);

    std::uint32_t ReleaseCamera() override;
    std::uint32_t ReleaseDevice() override;
    std::uint32_t GetConfigInfo(std::uint32_t* macHigh, std::uint32_t* macLow, std::uint32_t* serialNumber,
                                std::uint32_t* version, std::uint32_t* deviceMode, char* vendor, char* model,
                                std::uint32_t* vendorSize, std::uint32_t* modelSize) override;
    /// Registers are 32 bits wide at 32-bit addresses: anything above answers HAL_INVALID_ARGUMENT.
    std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t value,
                                std::uint32_t flags) override;
    std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t* value) override;
    InterfaceType GetInterfaceType() override;
    std::uint32_t GetCameraInfo(CameraInfo* info) override;
    std::uint32_t GetLinkSpeed(std::uint32_t* megabits) override;

    /// True when the camera is held by another application and may only be watched, and when that cannot be told.
    bool IsInMonitorMode();

    /// One GigE Vision bootstrap register, by READREG.
    std::uint32_t ReadGVCPRegister(unsigned int address, unsigned int* value);

    /// UDP port and IPv4 address (octet 0 in the most significant byte) from which this application talks to the
    /// camera.
    std::uint32_t GetLocalApplicationPort(unsigned int* port);
    std::uint32_t GetLocalApplicationIPAddress(unsigned int* ipAddress);
};

}  // namespace Nimbrel2

#endif
