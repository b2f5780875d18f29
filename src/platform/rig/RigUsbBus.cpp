// SPDX-License-Identifier: Apache-2.0
// The USB driver over a rig. Any thread; the rig's lock for the length of one look at the model.
#include <algorithm>
#include <atomic>

#include "platform/base/UsbSerial.h"
#include "platform/rig/RigDrivers.h"

namespace Nimbrel2::Platform {

namespace {

constexpr std::uint32_t Usb2Version = 0x0200;  // bcdUSB
constexpr std::uint32_t Usb3Version = 0x0320;
constexpr unsigned int SuperSpeed = 5000;

// A camera of a rig is known by its name there, whatever port it is on.
class Device final : public UsbDevice {
public:
    Device(std::shared_ptr<const RigDriverState> state, const UsbModel::Attached& attached)
        : m_state(std::move(state)), m_device(*attached.device), m_lastSpeed(attached.speed) {}

    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        return WhileAttached([&](UsbModel& host, const UsbModel::Attached& attached) {
            info->numbers = {static_cast<std::uint32_t>(m_device.vendorId) << 16 | m_device.productId,
                             static_cast<std::uint32_t>(host.HostKey()) << 8 | attached.deviceId,
                             UsbSerialNumber(m_device.vendorId, m_device.productId, m_device.serial), attached.speed,
                             attached.speed >= SuperSpeed ? Usb3Version : Usb2Version};
            info->vendor = m_device.vendor;
            info->model = m_device.model;
        });
    }

    std::uint32_t GetSerialText(std::string* text) override {
        *text = m_device.serial;
        return m_state->Check();
    }

    std::uint32_t GetSpeed(std::uint32_t* megabits) override {
        const std::uint32_t status =
            WhileAttached([&](UsbModel&, const UsbModel::Attached& attached) { m_lastSpeed = attached.speed; });
        *megabits = m_lastSpeed;
        return status == HAL_GONE ? static_cast<std::uint32_t>(HAL_OK) : status;
    }

    std::uint32_t ReadRegister(std::uint64_t, std::uint32_t*) override { return HAL_NOT_SUPPORTED; }
    std::uint32_t WriteRegister(std::uint64_t, std::uint32_t) override { return HAL_NOT_SUPPORTED; }

    std::uint32_t FireBusReset() override {
        const std::uint32_t status = m_state->Check();
        return status != HAL_OK ? status : m_state->rig->ResetHostOf(m_device.name);
    }

    std::uint32_t GetLinkInfo(std::uint32_t* link) override {
        return WhileAttached(
            [&](UsbModel&, const UsbModel::Attached& attached) { *link = UsbModel::LinkInfo(attached); });
    }

    std::uint32_t GetPortStatus(std::uint32_t* status) override {
        return WhileAttached(
            [&](UsbModel&, const UsbModel::Attached& attached) { *status = UsbModel::PortStatus(attached); });
    }

    std::uint32_t GetTree(std::vector<UsbSelfId>* records, std::uint32_t* deviceId, std::uint64_t* hostKey,
                          std::uint32_t* generation) override {
        return WhileAttached([&](UsbModel& host, const UsbModel::Attached& attached) {
            *records = host.Records();
            *deviceId = attached.deviceId;
            *hostKey = host.HostKey();
            *generation = host.Generation();
        });
    }

private:
    template <class Operation>
    std::uint32_t WhileAttached(Operation operation) const {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        return m_state->rig->WithUsb([&](std::vector<UsbModel>& hosts) -> std::uint32_t {
            for (UsbModel& host : hosts) {
                if (const UsbModel::Attached* attached = host.Find(m_device.name)) {
                    operation(host, *attached);
                    return HAL_OK;
                }
            }
            return HAL_GONE;
        });
    }

    const std::shared_ptr<const RigDriverState> m_state;
    const UsbDeviceDescription m_device;
    std::atomic<std::uint32_t> m_lastSpeed;
};

class RigUsbBus final : public UsbBus {
public:
    RigUsbBus(std::shared_ptr<Rig> rig, BusEventSink& sink)
        : m_state(std::make_shared<RigDriverState>(std::move(rig))), m_sink(sink) {}

    std::uint32_t Start() override {
        m_state->rig->ConnectUsb(&m_sink);
        return HAL_OK;
    }

    void Stop() override {
        m_state->stopped = true;
        m_state->rig->ConnectUsb(nullptr);
    }

    // In the order of controllers, then port paths.
    std::uint32_t ListCameras(Listing<UsbDevice>* cameras) override {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        cameras->state = m_state->rig->ListUsb([&](std::vector<UsbModel>& hosts) {
            for (const UsbModel& host : hosts) {
                std::vector<const UsbModel::Attached*> found;
                for (const UsbModel::Attached& attached : host.Devices()) {
                    if (attached.device->kind == UsbKind::Camera) {
                        found.push_back(&attached);
                    }
                }
                std::sort(found.begin(), found.end(),
                          [](const UsbModel::Attached* a, const UsbModel::Attached* b) { return a->path < b->path; });
                for (const UsbModel::Attached* attached : found) {
                    cameras->devices.push_back(std::make_shared<Device>(m_state, *attached));
                }
            }
        });
        return HAL_OK;
    }

    std::uint32_t Describe(std::vector<BusMap>* maps) override {
        const std::uint32_t status = m_state->Check();
        if (status == HAL_OK) {
            *maps = m_state->rig->DescribeUsb();
        }
        return status;
    }

private:
    const std::shared_ptr<RigDriverState> m_state;
    BusEventSink& m_sink;
};

}  // namespace

std::unique_ptr<UsbBus> MakeRigUsbBus(std::shared_ptr<Rig> rig, BusEventSink& sink) {
    return std::make_unique<RigUsbBus>(std::move(rig), sink);
}

}  // namespace Nimbrel2::Platform
