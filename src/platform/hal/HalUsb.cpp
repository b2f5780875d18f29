// SPDX-License-Identifier: Apache-2.0
// The functions on one USB camera. Run on their caller's thread, which the driver may block for bus I/O; no lock of the
// glue is held.
#include <algorithm>
#include <string>
#include <vector>

#include "platform/base/Texts.h"
#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

static_assert(sizeof(UsbSelfId) == 32, "the record has no padding");

uint32_t HAL_UsbGetConfigInfo(void* entry, uint32_t* vidPid, uint32_t* busAndAddress, uint32_t* serialNumber,
                              uint32_t* speed, uint32_t* version, char* vendor, char* model, uint32_t* vendorSize,
                              uint32_t* modelSize) {
    const bool good =
        vidPid && busAndAddress && serialNumber && speed && version && vendor && model && vendorSize && modelSize;
    return OnDevice<UsbDevice>(__func__, entry, good, [&](UsbDevice& device, std::uint32_t) {
        ConfigInfo info;
        const std::uint32_t status = device.GetConfigInfo(&info);
        if (status != HAL_OK) {
            return status;
        }
        *vidPid = info.numbers[0];
        *busAndAddress = info.numbers[1];
        *serialNumber = info.numbers[2];
        *speed = info.numbers[3];
        *version = info.numbers[4];
        CopyText(info.vendor, vendor, vendorSize);
        CopyText(info.model, model, modelSize);
        return status;
    });
}

uint32_t HAL_UsbGetSerialText(void* entry, char* text, uint32_t* size) {
    return OnDevice<UsbDevice>(__func__, entry, text && size, [&](UsbDevice& device, std::uint32_t) {
        std::string serial;
        const std::uint32_t status = device.GetSerialText(&serial);
        if (status == HAL_OK) {
            CopyText(serial, text, size);
        }
        return status;
    });
}

uint32_t HAL_UsbGetSpeed(void* entry, uint32_t* speed) {
    return OnDevice<UsbDevice>(__func__, entry, speed != nullptr,
                               [&](UsbDevice& device, std::uint32_t) { return device.GetSpeed(speed); });
}

uint32_t HAL_UsbReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value) {
    const bool good = IsRegisterAddress(address) && selector == DeviceOfEntry && value;
    return OnDevice<UsbDevice>(__func__, entry, good, [&](UsbDevice& device, std::uint32_t) {
        return device.ReadRegister(WholeRegisterAddress(address), value);
    });
}

uint32_t HAL_UsbWriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value, uint32_t flags) {
    const bool good = IsRegisterAddress(address) && selector == DeviceOfEntry && flags == 0;
    return OnDevice<UsbDevice>(__func__, entry, good, [&](UsbDevice& device, std::uint32_t) {
        return device.WriteRegister(WholeRegisterAddress(address), value);
    });
}

uint32_t HAL_UsbFireBusReset(void* entry) {
    return OnDevice<UsbDevice>(__func__, entry, true,
                               [](UsbDevice& device, std::uint32_t) { return device.FireBusReset(); });
}

uint32_t HAL_UsbGetLinkInfo(void* entry, uint32_t* link) {
    return OnDevice<UsbDevice>(__func__, entry, link != nullptr,
                               [&](UsbDevice& device, std::uint32_t) { return device.GetLinkInfo(link); });
}

uint32_t HAL_UsbGetPortStatus(void* entry, uint32_t* status) {
    return OnDevice<UsbDevice>(__func__, entry, status != nullptr,
                               [&](UsbDevice& device, std::uint32_t) { return device.GetPortStatus(status); });
}

uint32_t HAL_UsbGetSelfIds(void* entry, UsbSelfId* records, uint64_t* count, uint32_t* deviceId, uint64_t* hostKey,
                           uint32_t* generation) {
    const bool good = count && deviceId && hostKey && generation && (records || *count == 0);
    return OnDevice<UsbDevice>(__func__, entry, good, [&](UsbDevice& device, std::uint32_t) -> std::uint32_t {
        std::vector<UsbSelfId> found;
        const std::uint32_t status = device.GetTree(&found, deviceId, hostKey, generation);
        if (status != HAL_OK) {
            return status;
        }
        const std::uint64_t capacity = *count;
        *count = found.size();
        if (found.size() > capacity) {
            return HAL_INVALID_ARGUMENT;
        }
        std::copy(found.begin(), found.end(), records);
        return HAL_OK;
    });
}
