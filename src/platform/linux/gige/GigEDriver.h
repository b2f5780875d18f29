// SPDX-License-Identifier: Apache-2.0
// The GigE driver: its parts, and the listings and device operations that use several of them.
//
// Threads: one of its own, the monitor, from Start to Stop; any user threads. No lock of its own. Those of the parts,
// outermost first:
//   CameraChannel::Command  one camera's registers, while it answers; a listing holds those of several cameras, each of
//                           which it has found free
//   Presence::m_mutex       who is there
//   Interfaces::m_mutex     network interfaces and routes
//   Registers, CameraChannel, RequestIds, Monitor (its tasks), RouteSocket, the event sink   leaves
// Only a Command is held while the network is waited for, and only a Command or nothing while the monitor is.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_GIGEDRIVER_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_GIGEDRIVER_H

#include <cstdint>
#include <vector>

#include "platform/Drivers.h"
#include "platform/linux/gige/Addresses.h"
#include "platform/linux/gige/Discovery.h"
#include "platform/linux/gige/DriverParts.h"
#include "platform/linux/gige/Hearing.h"

namespace Nimbrel2::Platform::GigE {

/// A camera as one listing saw it.
struct ListedCamera {
    CameraKey key;
    GvcpDiscoveryRecord record{};
    Readings readings;  ///< for the first questions
    TimePoint listedAt;
};

class GigEDriver {
public:
    GigEDriver(const DriverOptions& options, BusEventSink& events);
    ~GigEDriver() { Stop(); }
    GigEDriver(const GigEDriver&) = delete;
    GigEDriver& operator=(const GigEDriver&) = delete;

    // Each as Drivers.h states it.
    std::uint32_t Start();
    void Stop();
    std::uint32_t ListCameras(std::vector<ListedCamera>* cameras, BusState* state);
    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis);
    std::uint32_t GetSearchReport(GigESearchReport* report);

    // One camera, found anew at each call. listed is what the entry's own listing saw.
    std::uint32_t GetRecord(const ListedCamera& listed, GvcpDiscoveryRecord* record);
    std::uint32_t ReadRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t* value);
    std::uint32_t WriteRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t value);
    std::uint32_t IsInMonitorMode(const ListedCamera& listed, bool* monitor);
    /// What the two above make of an answer, be it the camera's or one that a listing has read.
    std::uint32_t ConcludeAddress(const ListedCamera& listed, std::uint32_t status, std::uint32_t* value);
    std::uint32_t ConcludeMonitorMode(const ListedCamera& listed, std::uint32_t status, const ControlInfo& control,
                                      bool* monitor);
    /// Whether what the listing has read is still worth an answer.
    bool IsFresh(const ListedCamera& listed) const;

    Addresses& GetAddresses() { return m_addresses; }
    Discovery& GetDiscovery() { return m_discovery; }
    Hearing& GetHearing() { return m_hearing; }
    Registers& GetRegisters() { return m_parts.registers; }

private:
    std::map<CameraKey, Readings> VerifyListed();
    bool CountsAsPresent(const ListedCamera& listed, std::uint32_t* ip);

    DriverParts m_parts;
    Discovery m_discovery;
    Addresses m_addresses;
    Hearing m_hearing;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
