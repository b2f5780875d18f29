// SPDX-License-Identifier: Apache-2.0
// The functions on one IEEE 1394 camera or device. Run on their caller's thread, which the driver may block for bus
// I/O; no lock of the glue is held.
#include <algorithm>
#include <vector>

#include "platform/base/Texts.h"
#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

namespace {

/// Base registers have no page or port; the upper eight belong to a page and a port.
bool IsPhyRegister(std::uint32_t page, std::uint32_t port, std::uint32_t address) {
    if (address < 8) {
        return page == 0 && port == 0;
    }
    return address < 16 && page < 8 && port < 16;
}

}  // namespace

uint32_t HAL_1394GetConfigInfo(void* entry, uint32_t* first, uint32_t* nodeAddress, uint32_t* serialNumber,
                               uint32_t* card, uint32_t* unitVersion, char* vendor, char* model, uint32_t* vendorSize,
                               uint32_t* modelSize) {
    const bool good =
        first && nodeAddress && serialNumber && card && unitVersion && vendor && model && vendorSize && modelSize;
    return OnDevice<FireWireDevice>(__func__, entry, good, [&](FireWireDevice& device, std::uint32_t) {
        ConfigInfo info;
        const std::uint32_t status = device.GetConfigInfo(&info);
        if (status != HAL_OK) {
            return status;
        }
        *first = info.numbers[0];
        *nodeAddress = info.numbers[1];
        *serialNumber = info.numbers[2];
        *card = info.numbers[3];
        *unitVersion = info.numbers[4];
        CopyText(info.vendor, vendor, vendorSize);
        CopyText(info.model, model, modelSize);
        return status;
    });
}

uint32_t HAL_1394GetDeviceInfo(void* entry, uint32_t* info1, uint32_t* info2, uint32_t* info3) {
    return OnDevice<FireWireDevice>(__func__, entry, info1 && info2 && info3,
                                    [&](FireWireDevice& device, std::uint32_t position) {
                                        const std::uint32_t status = device.GetEui64(info2, info1);
                                        *info3 = 0xFFFFFFFF - position;
                                        return status;
                                    });
}

uint32_t HAL_1394GetNode(void* entry, uint16_t* node, uint16_t* busNumber) {
    return OnDevice<FireWireDevice>(__func__, entry, node && busNumber, [&](FireWireDevice& device, std::uint32_t) {
        return device.GetNode(node, busNumber);
    });
}

uint32_t HAL_1394ReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value) {
    const bool good = IsRegisterAddress(address) && selector == DeviceOfEntry && value;
    return OnDevice<FireWireDevice>(__func__, entry, good, [&](FireWireDevice& device, std::uint32_t) {
        return device.ReadQuadlet(WholeRegisterAddress(address), value);
    });
}

uint32_t HAL_1394WriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value, uint32_t flags) {
    const bool good = IsRegisterAddress(address) && selector == DeviceOfEntry && flags == 0;
    return OnDevice<FireWireDevice>(__func__, entry, good, [&](FireWireDevice& device, std::uint32_t) {
        return device.WriteQuadlet(WholeRegisterAddress(address), value);
    });
}

uint32_t HAL_1394ReadPhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address, uint32_t* value) {
    const bool good = IsPhyRegister(page, port, address) && value;
    return OnDevice<FireWireDevice>(__func__, entry, good, [&](FireWireDevice& device, std::uint32_t) {
        return device.ReadPhy(page, port, address, value);
    });
}

uint32_t HAL_1394WritePhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address, uint32_t value) {
    const bool good = IsPhyRegister(page, port, address) && value <= 0xFF;
    return OnDevice<FireWireDevice>(__func__, entry, good, [&](FireWireDevice& device, std::uint32_t) {
        return device.WritePhy(page, port, address, value);
    });
}

uint32_t HAL_1394FireBusReset(void* entry) {
    return OnDevice<FireWireDevice>(__func__, entry, true,
                                    [](FireWireDevice& device, std::uint32_t) { return device.FireBusReset(); });
}

uint32_t HAL_1394GetSelfIds(void* entry, SelfIdPacket_t* packets, uint64_t* count, uint64_t* busKey,
                            uint32_t* generation) {
    const bool good = count && busKey && generation && (packets || *count == 0);
    return OnDevice<FireWireDevice>(__func__, entry, good, [&](FireWireDevice& device, std::uint32_t) -> std::uint32_t {
        std::vector<SelfIdPacket_t> found;
        const std::uint32_t status = device.GetSelfIds(&found, busKey, generation);
        if (status != HAL_OK) {
            return status;
        }
        const std::uint64_t capacity = *count;
        *count = found.size();
        if (found.size() > capacity) {
            return HAL_INVALID_ARGUMENT;
        }
        std::copy(found.begin(), found.end(), packets);
        return HAL_OK;
    });
}

uint32_t HAL_1394GetNodeSerialNumbers(void* entry, uint32_t* serialNumbers, uint64_t count) {
    const bool good = serialNumbers || count == 0;
    return OnDevice<FireWireDevice>(__func__, entry, good, [&](FireWireDevice& device, std::uint32_t) {
        std::vector<std::uint32_t> found;
        const std::uint32_t status = device.GetNodeSerialNumbers(&found);
        if (status != HAL_OK) {
            return status;
        }
        std::copy_n(found.begin(), std::min<std::uint64_t>(found.size(), count), serialNumbers);
        return status;
    });
}
