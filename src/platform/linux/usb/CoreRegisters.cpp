// SPDX-License-Identifier: Apache-2.0
// Opens cameras for one access each: registers and resets. Runs on its caller's thread. The camera's channel is locked
// from its opening to its closing; m_mutex is only taken to look the camera up.
#include <libusb.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "platform/base/Errno.h"
#include "platform/linux/usb/UsbCore.h"

namespace Nimbrel2::Platform::Usb {

namespace {

// Stands for a program that has claimed an interface.
constexpr char ProgramsDriver[] = "usbfs";
// How often a camera is looked for that is plugged in and out while it is opened.
constexpr int OpenTries = 3;

bool IsGone(int error) { return error == ENOENT || error == ENODEV || error == ENXIO; }

// HAL_BUSY when another program has claimed an interface; drivers of the kernel's own are told of a reset by it.
std::uint32_t FindOtherUser(OpenDevice& open, const DeviceRecord& device) {
    const Configuration* configuration = device.descriptors.FindConfiguration(device.configuration);
    if (configuration == nullptr) {
        return HAL_OK;
    }
    for (const InterfaceDescriptor& interface : configuration->interfaces) {
        const std::uint32_t status = open.Claim(interface.number);
        if (status == HAL_OK) {
            continue;
        }
        if (status != HAL_ACCESS_DENIED) {
            return status;
        }
        const std::string driver = DriverOf(device, interface.number);
        if (driver.empty() || driver == ProgramsDriver) {
            return HAL_BUSY;
        }
    }
    // Or libusb would take them again afterwards, from drivers of the kernel's too.
    open.ReleaseAll();
    return HAL_OK;
}

}  // namespace

bool UsbCore::IsUdevRunning() { return ::access("/run/udev/control", F_OK) == 0; }

std::uint32_t UsbCore::FindNow(NamedCamera* camera, DevicePointer* device) {
    const LockGuard lock(m_mutex);
    if (!m_running) {
        return HAL_CLOSED;
    }
    if (const int error = LookIfDue(); error != 0) {
        return StatusOfErrno(error);
    }
    *device = FindAttached(camera);
    return *device != nullptr ? HAL_OK : HAL_GONE;
}

bool UsbCore::MayOpenSoon(const DeviceRecord& device) const {
    return device.firstSeen != TimePoint{} && Clock::now() < device.firstSeen + m_timings.permissionGrace &&
           !m_stopping && IsUdevRunning();
}

std::uint32_t UsbCore::OpenCamera(NamedCamera* camera, DevicePointer* device, OpenDevice* open) {
    int tries = 0;
    while (true) {
        std::uint32_t status = FindNow(camera, device);
        if (status != HAL_OK) {
            return status;
        }
        const int error = open->OpenNode(NodePath((*device)->bus, (*device)->number));
        if (error == EACCES || error == EPERM) {
            if (!MayOpenSoon(**device)) {
                return HAL_PERMISSION;
            }
            std::this_thread::sleep_for(m_timings.permissionRetry);
            continue;
        }
        if (error == 0) {
            status = open->Wrap(m_context, (*device)->descriptors);
        } else {
            status = IsGone(error) ? std::uint32_t{HAL_GONE} : StatusOfErrno(error);
        }
        if (status != HAL_GONE) {
            return status;
        }
        const bool isLast = ++tries == OpenTries;
        if (isLast && error == ENOENT) {
            std::this_thread::sleep_for(m_timings.permissionRetry);  // the node of a device that leaves goes first
        }
        {
            // It has left or come back a moment ago: the news of that may be on its way.
            const LockGuard lock(m_mutex);
            if (m_running) {
                Look();
            }
        }
        if (isLast) {
            status = FindNow(camera, device);
            if (status != HAL_OK) {
                return status;
            }
            // Attached, and without a node: a container that was not given it.
            return error == ENOENT ? HAL_PERMISSION : HAL_GONE;
        }
    }
}

std::shared_ptr<RegisterChannel> UsbCore::FindChannel(const CameraKey& key) {
    const LockGuard lock(m_mutex);
    std::shared_ptr<RegisterChannel>& channel = m_channels[key];
    if (!channel) {
        channel = std::make_shared<RegisterChannel>(m_timings, m_stopping);
    }
    return channel;
}

std::uint32_t UsbCore::GoneIfItLeft(NamedCamera* camera, std::uint32_t status) {
    // What a controller says of a device that is pulled out meanwhile is anything.
    if (status != HAL_FAILED && status != HAL_TIMED_OUT && status != HAL_REFUSED) {
        return status;
    }
    DevicePointer now;
    return FindNow(camera, &now) == HAL_GONE ? std::uint32_t{HAL_GONE} : status;
}

template <class Access>
std::uint32_t UsbCore::OnOpenCamera(NamedCamera* camera, const Access& access) {
    const std::shared_ptr<RegisterChannel> kept = FindChannel(camera->key);
    RegisterChannel& channel = *kept;
    const LockGuard lock(channel.mutex);
    DevicePointer device;
    OpenDevice open;
    const std::uint32_t status = OpenCamera(camera, &device, &open);
    return status == HAL_OK ? GoneIfItLeft(camera, access(channel, open, *device)) : status;
}

std::uint32_t UsbCore::ReadRegister(NamedCamera* camera, std::uint64_t address, std::uint32_t* value) {
    return OnOpenCamera(camera, [&](RegisterChannel& channel, OpenDevice& open, const DeviceRecord& device) {
        channel.mutex.AssumeHeld();
        return channel.Read(open, device, address, value);
    });
}

std::uint32_t UsbCore::WriteRegister(NamedCamera* camera, std::uint64_t address, std::uint32_t value) {
    return OnOpenCamera(camera, [&](RegisterChannel& channel, OpenDevice& open, const DeviceRecord& device) {
        channel.mutex.AssumeHeld();
        return channel.Write(open, device, address, value);
    });
}

std::uint32_t UsbCore::Reset(NamedCamera* camera) {
    const std::uint32_t status =
        OnOpenCamera(camera, [](RegisterChannel&, OpenDevice& open, const DeviceRecord& device) {
            const std::uint32_t use = FindOtherUser(open, device);
            if (use != HAL_OK) {
                return use;
            }
            const int result = libusb_reset_device(open.Get());
            // Not found: the device has come back as another one, or not at all. The port was reset.
            return result == LIBUSB_ERROR_NOT_FOUND ? std::uint32_t{HAL_OK} : StatusOfLibusb(result);
        });
    if (status != HAL_OK) {
        return status;
    }
    const LockGuard lock(m_mutex);
    if (!m_running) {
        return HAL_CLOSED;
    }
    // No uevent tells of it.
    ++m_resets;
    const int error = Look();
    m_monitor.Wake();
    return StatusOfErrno(error);
}

}  // namespace Nimbrel2::Platform::Usb
