// SPDX-License-Identifier: Apache-2.0
// The registers of a simulated GigE camera: what is where, who may read and write it, who holds control and for how
// long. In memory only; the time comes in with each call. One thread at a time, no lock.
#ifndef NIMBREL2_PLATFORM_SIMULATED_BOOTSTRAPREGISTERS_H
#define NIMBREL2_PLATFORM_SIMULATED_BOOTSTRAPREGISTERS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hal/HAL.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/simulated/SimulatedCameraOptions.h"

namespace Nimbrel2::Platform::Simulated {

using TimePoint = std::chrono::steady_clock::time_point;

class BootstrapRegisters {
public:
    explicit BootstrapRegisters(const SimulatedCameraOptions& options);

    // ---- Access as an application has it. A command is refused in this order: AccessDenied when another application
    // holds exclusive access (or, for a write, any control), BadAlignment, InvalidParameter for a size,
    // InvalidAddress where no register is, WriteProtect, AccessDenied for a write without control.

    Gvcp::Status Read(const Endpoint& peer, std::uint32_t address, std::uint32_t* value) const;
    /// @param bytes  Room for count bytes; untouched on failure.
    Gvcp::Status ReadMemory(const Endpoint& peer, std::uint32_t address, std::size_t count, std::uint8_t* bytes) const;
    Gvcp::Status Write(const Endpoint& peer, std::uint32_t address, std::uint32_t value, TimePoint now);
    /// Register by register. @param written  Receives how many bytes were written, on failure too.
    Gvcp::Status WriteMemory(const Endpoint& peer, std::uint32_t address, Gvcp::Bytes data, TimePoint now,
                             std::uint16_t* written);

    // ---- Control

    /// Ends control whose heartbeat has run out. To be called before each command.
    void ExpireControl(TimePoint now);
    /// Starts the heartbeat anew when that peer holds control.
    void Touch(const Endpoint& peer, TimePoint now);
    /// Whether the peer may not even read.
    bool IsLockedFor(const Endpoint& peer) const;
    bool IsControlHeld() const { return GetControlPrivilege() != 0; }
    std::uint32_t GetControlPrivilege() const { return Peek(Gvcp::Register::ControlChannelPrivilege); }
    /// Who holds control, if anybody does.
    std::optional<Endpoint> GetPrimaryApplication() const { return m_primary; }
    /// Gives control to somebody else, whose heartbeat never runs out.
    void HoldControl(const ControlOwner& owner);
    /// Closes the control channel and all that depends on it.
    void ReleaseControl();

    // ---- IP configuration

    std::uint32_t GetAddress() const { return Peek(Gvcp::Register::CurrentIpAddress); }
    std::uint32_t GetSubnetMask() const { return Peek(Gvcp::Register::CurrentSubnetMask); }
    std::uint32_t GetGateway() const { return Peek(Gvcp::Register::CurrentDefaultGateway); }
    std::uint64_t GetMac() const { return m_mac; }
    void SetIpConfiguration(std::uint32_t address, std::uint32_t subnetMask, std::uint32_t gateway);
    /// The configuration of power-up: the persistent one when it is enabled, else the first one.
    void RestartIpConfiguration();
    /// Loses everything that a camera without power loses.
    void PowerCycle();

    // ---- Others

    bool HasConcatenation() const { return m_concatenation; }
    std::chrono::milliseconds GetDiscoveryDelay() const;
    GvcpDiscoveryRecord GetDiscoveryRecord() const;

    /// A register as it is, whoever may read it; 0 where none is.
    std::uint32_t Peek(std::uint32_t address) const;
    /// Sets a register without rights and without consequences. @return false where none is.
    bool Poke(std::uint32_t address, std::uint32_t value);

private:
    enum class Access : std::uint8_t { ReadOnly, ReadWrite };

    struct Region {
        std::uint32_t begin = 0;
        Access access = Access::ReadOnly;
        std::vector<std::uint8_t> bytes;
    };

    /// Regions are added in ascending order and end before the next begins.
    void AddRegion(std::uint32_t begin, std::size_t size, Access access);
    void AddDiscoveryRegions(const SimulatedCameraOptions& options);
    void AddControlRegions(const SimulatedCameraOptions& options);
    void AddImageRegions();
    void AddDescription();
    void SetText(std::uint32_t address, std::size_t size, std::string_view text);

    const Region* FindRegion(std::uint32_t address) const;
    const std::uint8_t* FindWord(std::uint32_t address, Access* access) const;
    Gvcp::Status CheckWrite(const Endpoint& peer, std::uint32_t address) const;
    Gvcp::Status WriteControl(const Endpoint& peer, std::uint32_t value, TimePoint now);
    void Store(std::uint32_t address, std::uint32_t value);

    std::vector<Region> m_regions;
    std::uint64_t m_mac = 0;
    bool m_concatenation = true;
    bool m_tellsOwner = true;
    std::uint32_t m_firstAddress = 0;
    std::uint32_t m_firstSubnetMask = 0;
    std::uint32_t m_firstGateway = 0;
    std::uint32_t m_defaultHeartbeatTimeout = 0;

    std::optional<Endpoint> m_primary;
    bool m_heartbeatRuns = false;
    TimePoint m_lastCommand{};
};

}  // namespace Nimbrel2::Platform::Simulated

#endif
