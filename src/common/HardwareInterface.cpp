// SPDX-License-Identifier: Apache-2.0
// What a device answers to the operations that its bus does not have.
#include "common/HardwareInterface.h"

namespace Nimbrel2 {

int HardwareInterface::GetSelfIds(unsigned int*, std::uint64_t*, std::uint64_t*, SelfIdPacket_t*) {
    return HAL_NOT_SUPPORTED;
}

int HardwareInterface::GetUsbSelfIds(unsigned int*, std::uint64_t*, std::uint64_t*, UsbSelfId*) {
    return HAL_NOT_SUPPORTED;
}

std::uint32_t HardwareInterface::GetNodeSerialNumbers(std::vector<unsigned int>*) { return HAL_NOT_SUPPORTED; }

std::uint32_t HardwareInterface::GetDeviceInfo(std::uint32_t*, std::uint32_t*, std::uint32_t*) {
    return HAL_NOT_SUPPORTED;
}

std::uint32_t HardwareInterface::ReadPhyRegister(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t*) {
    return HAL_NOT_SUPPORTED;
}

std::uint32_t HardwareInterface::WritePhyRegister(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
    return HAL_PHY_WRITE_NOT_IMPLEMENTED;
}

std::uint32_t HardwareInterface::FireBusReset() { return HAL_NOT_SUPPORTED; }

std::uint32_t HardwareInterface::GetLinkSpeed(std::uint32_t*) { return HAL_NOT_SUPPORTED; }

}  // namespace Nimbrel2
