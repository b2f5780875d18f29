// SPDX-License-Identifier: Apache-2.0
// Operations on a bus through the interface object of one camera. Any thread; m_busMasterMutex is held only for the
// look-up, and the object is kept alive until its operation has ended, even when the camera leaves meanwhile.
#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"
#include "common/UsbInterface.h"

namespace Nimbrel2 {

namespace {

using Interface = boost::shared_ptr<HardwareInterface>;

Error NotFound() { return NIMBREL2_ERROR(ERROR_NOT_FOUND, "Camera not found with specified guid."); }

// The two USB operations differ only in what they ask for.
Error AskUsbInterface(const Interface& found, std::uint32_t (UsbInterface::*question)(unsigned int*),
                      unsigned int* answer) {
    if (!found) {
        return NotFound();
    }
    auto* const usb = dynamic_cast<UsbInterface*>(found.get());
    if (usb == nullptr) {
        return NIMBREL2_ERROR(ERROR_UNSUPPORTED_INTERFACE, "Unsupported Hardware Interface.");
    }
    if ((usb->*question)(answer) != HAL_OK) {
        return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Unable to read card register.");
    }
    return InternalError(ERROR_OK);
}

}  // namespace

Error BusMaster::FireBusReset(ZevoGuid* guid) {
    return WithoutExceptions([&]() -> Error {
        TraceLine("Firing a bus reset");
        const Interface found = m_members->GetHwInterfaceFromGuidInternal(*guid);
        if (!found) {
            return NotFound();
        }
        const std::uint32_t status = found->FireBusReset();
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Unable to fire bus reset. Error 0x%x", status);
        }
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::ReadPhyRegister(ZevoGuid guid, unsigned int a, unsigned int b, unsigned int c, unsigned int* value) {
    return WithoutExceptions([&]() -> Error {
        const Interface found = m_members->GetHwInterfaceFromGuidInternal(guid);
        if (!found) {
            return NotFound();
        }
        const std::uint32_t status = found->ReadPhyRegister(a, b, c, value);
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Unable to read phy register. Error 0x%x", status);
        }
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::WritePhyRegister(ZevoGuid guid, unsigned int a, unsigned int b, unsigned int c, unsigned int value) {
    return WithoutExceptions([&]() -> Error {
        const Interface found = m_members->GetHwInterfaceFromGuidInternal(guid);
        if (!found) {
            return NotFound();
        }
        const std::uint32_t status = found->WritePhyRegister(a, b, c, value);
        if (status == HAL_PHY_WRITE_NOT_IMPLEMENTED) {
            return NIMBREL2_ERROR(ERROR_NOT_IMPLEMENTED, "This function has not been implemented.");
        }
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Unable to write phy register. Error 0x%x", status);
        }
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetUsbLinkInfo(ZevoGuid guid, unsigned int* info) {
    return WithoutExceptions([&] {
        return AskUsbInterface(m_members->GetHwInterfaceFromGuidInternal(guid), &UsbInterface::GetLinkInfo, info);
    });
}

Error BusMaster::GetUsbPortStatus(ZevoGuid guid, unsigned int* status) {
    return WithoutExceptions([&] {
        return AskUsbInterface(m_members->GetHwInterfaceFromGuidInternal(guid), &UsbInterface::GetPortStatus, status);
    });
}

Error BusMaster::GetLinkSpeed(ZevoGuid guid, unsigned int* megabits) {
    return WithoutExceptions([&]() -> Error {
        if (megabits == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid link speed address.");
        }
        const Interface found = m_members->GetHwInterfaceFromGuidInternal(guid);
        if (!found) {
            return NotFound();
        }
        const std::uint32_t status = found->GetLinkSpeed(megabits);
        if (status == HAL_NOT_SUPPORTED) {
            return NIMBREL2_ERROR(ERROR_UNSUPPORTED_INTERFACE, "The camera does not tell how fast its link is.");
        }
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Unable to read the link speed. Error 0x%x", status);
        }
        return InternalError(ERROR_OK);
    });
}

}  // namespace Nimbrel2
