// SPDX-License-Identifier: Apache-2.0
// Opens devices for libusb. Runs on the thread that accesses a camera; takes UsbContext's leaf mutex only.
#include "platform/linux/usb/OpenDevice.h"

#include <fcntl.h>
#include <libusb.h>

#include <cerrno>
#include <cstdio>

#include "hal/HAL.h"

namespace Nimbrel2::Platform::Usb {

std::string NodePath(std::uint32_t bus, std::uint32_t number) {
    char path[64];
    std::snprintf(path, sizeof path, "/dev/bus/usb/%03u/%03u", bus, number);
    return path;
}

std::uint32_t StatusOfLibusb(int result) {
    switch (result) {
        case LIBUSB_ERROR_INVALID_PARAM:
            return HAL_INVALID_ARGUMENT;
        case LIBUSB_ERROR_ACCESS:
            return HAL_PERMISSION;
        case LIBUSB_ERROR_NO_DEVICE:
        case LIBUSB_ERROR_NOT_FOUND:
            return HAL_GONE;
        case LIBUSB_ERROR_BUSY:
            return HAL_BUSY;
        case LIBUSB_ERROR_TIMEOUT:
            return HAL_TIMED_OUT;
        case LIBUSB_ERROR_OVERFLOW:
            return HAL_BAD_ANSWER;
        case LIBUSB_ERROR_PIPE:
            return HAL_REFUSED;
        case LIBUSB_ERROR_NO_MEM:
            return HAL_OUT_OF_MEMORY;
        case LIBUSB_ERROR_NOT_SUPPORTED:
            return HAL_NOT_SUPPORTED;
        default:
            return result < 0 ? HAL_FAILED : HAL_OK;
    }
}

UsbContext::~UsbContext() {
    if (m_context != nullptr) {
        libusb_exit(m_context);
    }
}

std::uint32_t UsbContext::Get(libusb_context** context) {
    const LockGuard lock(m_mutex);
    if (m_context == nullptr) {
        // For all contexts that this process makes from here on: Debian 12's libusb knows no other way to say it.
        int result = libusb_set_option(nullptr, LIBUSB_OPTION_NO_DEVICE_DISCOVERY);
        if (result == LIBUSB_SUCCESS) {
            result = libusb_init(&m_context);
        }
        if (result != LIBUSB_SUCCESS) {
            m_context = nullptr;
            return StatusOfLibusb(result);
        }
        libusb_set_option(m_context, LIBUSB_OPTION_LOG_LEVEL, LIBUSB_LOG_LEVEL_NONE);
    }
    *context = m_context;
    return HAL_OK;
}

OpenDevice::~OpenDevice() { Close(); }

int OpenDevice::OpenNode(const std::string& path) {
    Close();
    m_node = FileDescriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    return m_node.IsOpen() ? 0 : errno;
}

std::uint32_t OpenDevice::Wrap(UsbContext& context, const Descriptors& expected) {
    libusb_context* libusb = nullptr;
    if (const std::uint32_t status = context.Get(&libusb); status != HAL_OK) {
        return status;
    }
    const int result = libusb_wrap_sys_device(libusb, m_node.Get(), &m_handle);
    if (result != LIBUSB_SUCCESS) {
        m_handle = nullptr;
        return StatusOfLibusb(result);
    }
    libusb_device_descriptor device{};
    libusb_get_device_descriptor(libusb_get_device(m_handle), &device);
    // The number of a device that left may have been given to another one.
    const bool isExpected = device.idVendor == expected.vendorId && device.idProduct == expected.productId;
    return isExpected ? HAL_OK : HAL_GONE;
}

void OpenDevice::Close() {
    ReleaseAll();
    if (m_handle != nullptr) {
        libusb_close(m_handle);
    }
    m_handle = nullptr;
    m_node.Close();
}

void OpenDevice::ReleaseAll() {
    for (const std::uint8_t interface : m_claimed) {
        libusb_release_interface(m_handle, interface);
    }
    m_claimed.clear();
}

std::uint32_t OpenDevice::Claim(std::uint8_t interface) {
    m_claimed.reserve(m_claimed.size() + 1);
    const int result = libusb_claim_interface(m_handle, interface);
    if (result == LIBUSB_ERROR_BUSY) {
        return HAL_ACCESS_DENIED;
    }
    if (result == LIBUSB_SUCCESS) {
        m_claimed.push_back(interface);
    }
    return StatusOfLibusb(result);
}

}  // namespace Nimbrel2::Platform::Usb
