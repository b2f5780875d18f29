// SPDX-License-Identifier: Apache-2.0
// A device that is open for one access, by way of libusb. libusb looks for nothing and listens to nothing here: it is
// handed files that the driver has opened.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_OPENDEVICE_H
#define NIMBREL2_PLATFORM_LINUX_USB_OPENDEVICE_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Mutex.h"
#include "platform/linux/usb/DeviceRecord.h"

struct libusb_context;
struct libusb_device_handle;

namespace Nimbrel2::Platform::Usb {

/// "/dev/bus/usb/002/027"
std::string NodePath(std::uint32_t bus, std::uint32_t number);

/// The HALStatus for what a function of libusb answers; HAL_OK for all that is not negative.
std::uint32_t StatusOfLibusb(int result);

/// libusb's own state, made by the first access. Any thread; a leaf mutex.
class UsbContext {
public:
    UsbContext() = default;
    ~UsbContext();
    UsbContext(const UsbContext&) = delete;
    UsbContext& operator=(const UsbContext&) = delete;

    /// @return HALStatus
    std::uint32_t Get(libusb_context** context) NIMBREL2_EXCLUDES(m_mutex);

private:
    Mutex m_mutex;
    libusb_context* m_context NIMBREL2_GUARDED_BY(m_mutex) = nullptr;
};

/// One device while it is accessed. What was claimed is given back and the file is closed at the end of it. One thread.
class OpenDevice {
public:
    OpenDevice() = default;
    ~OpenDevice();
    OpenDevice(const OpenDevice&) = delete;
    OpenDevice& operator=(const OpenDevice&) = delete;

    /// Opens the node of a device. @return 0 or an errno.
    int OpenNode(const std::string& path);
    /// Hands the open node to libusb. @return HALStatus; HAL_GONE when it is not the node of such a device.
    std::uint32_t Wrap(UsbContext& context, const Descriptors& expected);
    void Close();

    libusb_device_handle* Get() const { return m_handle; }

    /// Takes an interface for this file alone. @return HAL_ACCESS_DENIED when another program has it.
    std::uint32_t Claim(std::uint8_t interface);
    void ReleaseAll();

private:
    FileDescriptor m_node;
    libusb_device_handle* m_handle = nullptr;
    std::vector<std::uint8_t> m_claimed;
};

}  // namespace Nimbrel2::Platform::Usb

#endif
