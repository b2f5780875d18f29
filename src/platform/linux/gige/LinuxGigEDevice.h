// SPDX-License-Identifier: Apache-2.0
// One entry of the GigE bus: names a camera and asks the core for it at each call. Any thread; no lock of its own.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_LINUXGIGEDEVICE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_LINUXGIGEDEVICE_H

#include <memory>
#include <utility>

#include "platform/Drivers.h"
#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

class LinuxGigEDevice final : public GigEDevice {
public:
    LinuxGigEDevice(std::shared_ptr<GigECore> core, ListedCamera listed)
        : m_core(std::move(core)), m_listed(std::move(listed)) {}

    std::uint32_t GetRecord(GvcpDiscoveryRecord* record) override { return m_core->GetRecord(m_listed, record); }
    std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) override {
        return m_core->ReadRegister(m_listed, address, value);
    }
    std::uint32_t WriteRegister(std::uint32_t address, std::uint32_t value) override {
        return m_core->WriteRegister(m_listed, address, value);
    }
    std::uint32_t IsInMonitorMode(bool* monitor) override { return m_core->IsInMonitorMode(m_listed, monitor); }
    std::uint32_t GetLocalPort(std::uint32_t* port) override {
        std::uint32_t ip = 0;
        std::uint16_t localPort = 0;
        const std::uint32_t status = m_core->GetLocalEnd(m_listed, &ip, &localPort);
        *port = localPort;
        return status;
    }
    std::uint32_t GetLocalAddress(std::uint32_t* ipAddress) override {
        std::uint16_t localPort = 0;
        return m_core->GetLocalEnd(m_listed, ipAddress, &localPort);
    }

private:
    const std::shared_ptr<GigECore> m_core;
    const ListedCamera m_listed;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
