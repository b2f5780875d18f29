// SPDX-License-Identifier: Apache-2.0
// The USB driver as the HAL sees it: hands everything to the core. Any thread; no lock of its own.
#include "platform/linux/usb/LinuxUsbBus.h"

#include <utility>

#include "platform/linux/usb/LinuxUsbDevice.h"
#include "platform/linux/usb/UsbCore.h"

namespace Nimbrel2::Platform {

namespace {

class Bus final : public UsbBus {
public:
    explicit Bus(std::shared_ptr<Usb::UsbCore> core) : m_core(std::move(core)) {}
    ~Bus() override { m_core->Stop(); }

    std::uint32_t Start() override { return m_core->Start(); }
    void Stop() override { m_core->Stop(); }

    std::uint32_t ListCameras(Listing<UsbDevice>* cameras) override {
        std::vector<Usb::DevicePointer> listed;
        const std::uint32_t status = m_core->ListCameras(&listed, &cameras->state);
        for (const Usb::DevicePointer& device : listed) {
            cameras->devices.push_back(std::make_shared<Usb::LinuxUsbDevice>(m_core, *device));
        }
        return status;
    }

    std::uint32_t Describe(std::vector<BusMap>* maps) override { return m_core->Describe(maps); }
    std::uint32_t Diagnose(UsbDiagnosis* diagnosis) override { return m_core->Diagnose(diagnosis); }

private:
    // Entries hold it too and may outlive the bus.
    const std::shared_ptr<Usb::UsbCore> m_core;
};

}  // namespace

std::unique_ptr<UsbBus> MakeLinuxUsbBus(LinuxUsbOptions options, BusEventSink& events) {
    return std::make_unique<Bus>(std::make_shared<Usb::UsbCore>(std::move(options), Usb::Timings(), events));
}

}  // namespace Nimbrel2::Platform
