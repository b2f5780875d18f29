// SPDX-License-Identifier: Apache-2.0
// A simulated camera's registers, their access rights and their consequences. One thread at a time, no lock, no clock.
#include "platform/simulated/BootstrapRegisters.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "platform/simulated/GenicamDescription.h"

namespace Nimbrel2::Platform::Simulated {

using Gvcp::Status;
namespace Register = Gvcp::Register;

namespace {

constexpr std::uint32_t ShortestHeartbeat = 500;  // milliseconds
constexpr std::uint32_t TimestampTicksPerSecond = 1000000000;
constexpr std::uint32_t LongestCommand = 1000;  // milliseconds
constexpr std::uint32_t AccessBits = Gvcp::Ccp::ExclusiveAccess | Gvcp::Ccp::ControlAccess;
constexpr std::uint32_t SupportedIpConfiguration =
    Gvcp::IpConfiguration::PersistentIp | Gvcp::IpConfiguration::Dhcp | Gvcp::IpConfiguration::LinkLocalAddress;
constexpr std::uint32_t Mono8 = 0x01080001;

std::uint32_t CapabilitiesOf(const SimulatedCameraOptions& options) {
    namespace Capability = Gvcp::Capability;
    std::uint32_t bits = Capability::WriteMem | Capability::PendingAck | Capability::DiscoveryAckDelay |
                         Capability::DiscoveryAckDelayWritable | Capability::LinkSpeed | Capability::HeartbeatDisable |
                         Capability::SerialNumber | Capability::UserDefinedName;
    if (options.concatenation) {
        bits |= Capability::Concatenation;
    }
    if (options.tellsOwner) {
        bits |= Capability::PrimaryApplicationPortAndIp;
    }
    return bits;
}

}  // namespace

BootstrapRegisters::BootstrapRegisters(const SimulatedCameraOptions& options)
    : m_mac(options.mac & 0xFFFFFFFFFFFF),
      m_concatenation(options.concatenation),
      m_tellsOwner(options.tellsOwner),
      m_firstAddress(options.address),
      m_firstSubnetMask(options.subnetMask),
      m_firstGateway(options.gateway),
      m_defaultHeartbeatTimeout(std::max(options.heartbeatTimeout, ShortestHeartbeat)) {
    AddDiscoveryRegions(options);
    AddControlRegions(options);
    AddImageRegions();
    AddDescription();
    RestartIpConfiguration();
    if (options.owner) {
        HoldControl(*options.owner);
    }
}

// ---- What is where -------------------------------------------------------------------------------------------------

void BootstrapRegisters::AddRegion(std::uint32_t begin, std::size_t size, Access access) {
    m_regions.push_back({begin, access, std::vector<std::uint8_t>(size)});
}

void BootstrapRegisters::AddDiscoveryRegions(const SimulatedCameraOptions& options) {
    // The words between the registers are read as 0: a discovery acknowledge shows all of this block.
    AddRegion(Register::Version, Register::CurrentIpConfiguration, Access::ReadOnly);
    AddRegion(Register::CurrentIpConfiguration, 4, Access::ReadWrite);
    AddRegion(Register::CurrentIpConfiguration + 4, Register::UserDefinedName - Register::CurrentIpConfiguration - 4,
              Access::ReadOnly);
    AddRegion(Register::UserDefinedName, Gvcp::UserDefinedNameBytes, Access::ReadWrite);

    Poke(Register::Version, static_cast<std::uint32_t>(options.versionMajor) << 16 | options.versionMinor);
    Poke(Register::DeviceMode, options.deviceMode);
    Poke(Register::DeviceMacAddressHigh, static_cast<std::uint32_t>(m_mac >> 32));
    Poke(Register::DeviceMacAddressLow, static_cast<std::uint32_t>(m_mac));
    Poke(Register::SupportedIpConfiguration, SupportedIpConfiguration);
    Poke(Register::CurrentIpConfiguration, Gvcp::IpConfiguration::Dhcp | Gvcp::IpConfiguration::LinkLocalAddress |
                                               (options.persistentIpEnabled ? Gvcp::IpConfiguration::PersistentIp : 0));
    SetText(Register::ManufacturerName, Gvcp::ManufacturerNameBytes, options.vendor);
    SetText(Register::ModelName, Gvcp::ModelNameBytes, options.model);
    SetText(Register::DeviceVersion, Gvcp::DeviceVersionBytes, options.deviceVersion);
    SetText(Register::ManufacturerInfo, Gvcp::ManufacturerInfoBytes, options.info);
    SetText(Register::SerialNumber, Gvcp::SerialNumberBytes, options.serialNumber);
    SetText(Register::UserDefinedName, Gvcp::UserDefinedNameBytes, options.userDefinedName);
}

void BootstrapRegisters::AddControlRegions(const SimulatedCameraOptions& options) {
    AddRegion(Register::FirstUrl, Gvcp::UrlBytes, Access::ReadOnly);
    AddRegion(Register::SecondUrl, Gvcp::UrlBytes, Access::ReadOnly);
    AddRegion(Register::NumberOfNetworkInterfaces, 4, Access::ReadOnly);
    AddRegion(Register::PersistentIpAddress, 4, Access::ReadWrite);
    AddRegion(Register::PersistentSubnetMask, 4, Access::ReadWrite);
    AddRegion(Register::PersistentDefaultGateway, 4, Access::ReadWrite);
    AddRegion(Register::LinkSpeed, 4, Access::ReadOnly);
    AddRegion(Register::NumberOfMessageChannels, 4, Access::ReadOnly);
    AddRegion(Register::NumberOfStreamChannels, 4, Access::ReadOnly);
    AddRegion(Register::NumberOfActionSignals, 4, Access::ReadOnly);
    AddRegion(Register::GvcpCapability, 4, Access::ReadOnly);
    AddRegion(Register::HeartbeatTimeout, 4, Access::ReadWrite);
    AddRegion(Register::TimestampTickFrequencyHigh, 8, Access::ReadOnly);
    AddRegion(Register::DiscoveryAckDelay, 4, Access::ReadWrite);
    AddRegion(Register::GvcpConfiguration, 4, Access::ReadWrite);
    AddRegion(Register::PendingTimeout, 4, Access::ReadOnly);
    AddRegion(Register::ControlChannelPrivilege, 4, Access::ReadWrite);
    if (m_tellsOwner) {
        AddRegion(Register::PrimaryApplicationPort, 4, Access::ReadOnly);
        AddRegion(Register::PrimaryApplicationIpAddress, 4, Access::ReadOnly);
    }
    AddRegion(Register::StreamChannelPort, 4, Access::ReadWrite);
    AddRegion(Register::StreamChannelPacketSize, 4, Access::ReadWrite);
    AddRegion(Register::StreamChannelPacketDelay, 4, Access::ReadWrite);
    AddRegion(Register::StreamChannelDestination, 4, Access::ReadWrite);

    Poke(Register::NumberOfNetworkInterfaces, 1);
    Poke(Register::PersistentIpAddress, options.persistentAddress);
    Poke(Register::PersistentSubnetMask, options.persistentSubnetMask);
    Poke(Register::PersistentDefaultGateway, options.persistentGateway);
    Poke(Register::LinkSpeed, options.linkSpeed);
    Poke(Register::NumberOfStreamChannels, 1);
    Poke(Register::GvcpCapability, CapabilitiesOf(options));
    Poke(Register::HeartbeatTimeout, m_defaultHeartbeatTimeout);
    Poke(Register::TimestampTickFrequencyLow, TimestampTicksPerSecond);
    Poke(Register::DiscoveryAckDelay, options.discoveryDelay);
    Poke(Register::PendingTimeout, LongestCommand);
}

void BootstrapRegisters::AddImageRegions() {
    AddRegion(ImageRegister::First, ImageRegister::Bytes, Access::ReadWrite);
    Poke(ImageRegister::Width, 640);
    Poke(ImageRegister::Height, 480);
    Poke(ImageRegister::PixelFormat, Mono8);
    Poke(ImageRegister::ExposureTime, 10000);
}

void BootstrapRegisters::AddDescription() {
    const std::string_view description = GetGenicamDescription();
    AddRegion(DescriptionAddress, description.size(), Access::ReadOnly);
    std::copy(description.begin(), description.end(), m_regions.back().bytes.begin());

    std::array<char, 64> url{};
    std::snprintf(url.data(), url.size(), "Local:nimbrel2_simulated.xml;%X;%zX", DescriptionAddress,
                  description.size());
    SetText(Register::FirstUrl, Gvcp::UrlBytes, url.data());
}

void BootstrapRegisters::SetText(std::uint32_t address, std::size_t size, std::string_view text) {
    const std::string_view fitting = text.substr(0, size);
    std::array<std::uint8_t, Gvcp::UrlBytes> field{};
    std::copy(fitting.begin(), fitting.end(), field.begin());
    for (std::uint32_t offset = 0; offset < size; offset += 4) {
        Poke(address + offset, Gvcp::LoadU32(&field[offset]));
    }
}

const BootstrapRegisters::Region* BootstrapRegisters::FindRegion(std::uint32_t address) const {
    const auto after = std::upper_bound(m_regions.begin(), m_regions.end(), address,
                                        [](std::uint32_t value, const Region& region) { return value < region.begin; });
    if (after == m_regions.begin()) {
        return nullptr;
    }
    const Region& region = *std::prev(after);
    return address - region.begin < region.bytes.size() ? &region : nullptr;
}

const std::uint8_t* BootstrapRegisters::FindWord(std::uint32_t address, Access* access) const {
    if (address % 4 != 0) {
        return nullptr;
    }
    const Region* region = FindRegion(address);
    if (region == nullptr) {
        return nullptr;
    }
    if (access != nullptr) {
        *access = region->access;
    }
    return &region->bytes[address - region->begin];
}

std::uint32_t BootstrapRegisters::Peek(std::uint32_t address) const {
    const std::uint8_t* word = FindWord(address, nullptr);
    return word == nullptr ? 0 : Gvcp::LoadU32(word);
}

bool BootstrapRegisters::Poke(std::uint32_t address, std::uint32_t value) {
    const Region* found = FindRegion(address);
    if (found == nullptr || address % 4 != 0) {
        return false;
    }
    Region& region = m_regions[static_cast<std::size_t>(found - m_regions.data())];
    Gvcp::StoreU32(&region.bytes[address - region.begin], value);
    return true;
}

// ---- Who may do what -----------------------------------------------------------------------------------------------

bool BootstrapRegisters::IsLockedFor(const Endpoint& peer) const {
    return (GetControlPrivilege() & Gvcp::Ccp::ExclusiveAccess) != 0 && m_primary != peer;
}

Status BootstrapRegisters::Read(const Endpoint& peer, std::uint32_t address, std::uint32_t* value) const {
    if (IsLockedFor(peer)) {
        return Status::AccessDenied;
    }
    if (address % 4 != 0) {
        return Status::BadAlignment;
    }
    const std::uint8_t* word = FindWord(address, nullptr);
    if (word == nullptr) {
        return Status::InvalidAddress;
    }
    *value = Gvcp::LoadU32(word);
    return Status::Success;
}

Status BootstrapRegisters::ReadMemory(const Endpoint& peer, std::uint32_t address, std::size_t count,
                                      std::uint8_t* bytes) const {
    if (IsLockedFor(peer)) {
        return Status::AccessDenied;
    }
    if (address % 4 != 0 || count % 4 != 0) {
        return Status::BadAlignment;
    }
    if (count == 0 || count > Gvcp::MaxMemoryBytes) {
        return Status::InvalidParameter;
    }
    std::array<std::uint8_t, Gvcp::MaxMemoryBytes> data;
    for (std::uint32_t offset = 0; offset < count; offset += 4) {
        if (address > UINT32_MAX - offset) {
            return Status::InvalidAddress;
        }
        const std::uint8_t* word = FindWord(address + offset, nullptr);
        if (word == nullptr) {
            return Status::InvalidAddress;
        }
        std::memcpy(&data[offset], word, 4);
    }
    std::memcpy(bytes, data.data(), count);
    return Status::Success;
}

Status BootstrapRegisters::CheckWrite(const Endpoint& peer, std::uint32_t address) const {
    if (IsControlHeld() && m_primary != peer) {
        return Status::AccessDenied;
    }
    if (address % 4 != 0) {
        return Status::BadAlignment;
    }
    Access access = Access::ReadOnly;
    if (FindWord(address, &access) == nullptr) {
        return Status::InvalidAddress;
    }
    if (access == Access::ReadOnly) {
        return Status::WriteProtect;
    }
    if (!IsControlHeld() && address != Register::ControlChannelPrivilege) {
        return Status::AccessDenied;
    }
    return Status::Success;
}

Status BootstrapRegisters::Write(const Endpoint& peer, std::uint32_t address, std::uint32_t value, TimePoint now) {
    const Status status = CheckWrite(peer, address);
    if (status != Status::Success) {
        return status;
    }
    if (address == Register::ControlChannelPrivilege) {
        return WriteControl(peer, value, now);
    }
    Store(address, value);
    return Status::Success;
}

Status BootstrapRegisters::WriteMemory(const Endpoint& peer, std::uint32_t address, Gvcp::Bytes data, TimePoint now,
                                       std::uint16_t* written) {
    *written = 0;
    if (data.size() % 4 != 0) {
        return IsControlHeld() && m_primary != peer ? Status::AccessDenied : Status::BadAlignment;
    }
    if (data.empty() || data.size() > Gvcp::MaxMemoryBytes) {
        return Status::InvalidParameter;
    }
    for (std::uint32_t offset = 0; offset < data.size(); offset += 4) {
        if (address > UINT32_MAX - offset) {
            return Status::InvalidAddress;
        }
        const Status status = Write(peer, address + offset, Gvcp::LoadU32(&data[offset]), now);
        if (status != Status::Success) {
            return status;
        }
        *written = static_cast<std::uint16_t>(offset + 4);
    }
    return Status::Success;
}

// ---- What follows from a write -------------------------------------------------------------------------------------

void BootstrapRegisters::Store(std::uint32_t address, std::uint32_t value) {
    switch (address) {
        case Register::CurrentIpConfiguration:
            value = (value & SupportedIpConfiguration) | Gvcp::IpConfiguration::LinkLocalAddress;
            break;
        case Register::HeartbeatTimeout:
            value = std::max(value, ShortestHeartbeat);
            break;
        case Register::DiscoveryAckDelay:
            value &= 0xFFFF;
            break;
        case Register::GvcpConfiguration:
            value &= Gvcp::GvcpConfiguration::HeartbeatDisable | Gvcp::GvcpConfiguration::PendingAckEnable;
            break;
        default:
            break;
    }
    Poke(address, value);
}

Status BootstrapRegisters::WriteControl(const Endpoint& peer, std::uint32_t value, TimePoint now) {
    // Switchover is no capability of this camera: its bit and its key change nothing.
    const std::uint32_t privilege = value & AccessBits;
    if (privilege == 0) {
        ReleaseControl();
        return Status::Success;
    }
    if (!m_primary) {
        m_primary = peer;
        m_heartbeatRuns = true;
        m_lastCommand = now;
        Poke(Register::PrimaryApplicationPort, peer.port);
        Poke(Register::PrimaryApplicationIpAddress, peer.address);
    }
    Poke(Register::ControlChannelPrivilege, privilege);
    return Status::Success;
}

void BootstrapRegisters::ReleaseControl() {
    m_primary.reset();
    m_heartbeatRuns = false;
    Poke(Register::ControlChannelPrivilege, 0);
    Poke(Register::PrimaryApplicationPort, 0);
    Poke(Register::PrimaryApplicationIpAddress, 0);
    Poke(Register::StreamChannelPort, 0);
    Poke(Register::StreamChannelDestination, 0);
}

void BootstrapRegisters::HoldControl(const ControlOwner& owner) {
    m_primary = owner.endpoint;
    m_heartbeatRuns = false;
    Poke(Register::ControlChannelPrivilege, owner.exclusive ? Gvcp::Ccp::ExclusiveAccess : Gvcp::Ccp::ControlAccess);
    Poke(Register::PrimaryApplicationPort, owner.endpoint.port);
    Poke(Register::PrimaryApplicationIpAddress, owner.endpoint.address);
}

void BootstrapRegisters::ExpireControl(TimePoint now) {
    if (!m_heartbeatRuns) {
        return;
    }
    if ((Peek(Register::GvcpConfiguration) & Gvcp::GvcpConfiguration::HeartbeatDisable) != 0) {
        return;
    }
    if (now - m_lastCommand >= std::chrono::milliseconds(Peek(Register::HeartbeatTimeout))) {
        ReleaseControl();
    }
}

void BootstrapRegisters::Touch(const Endpoint& peer, TimePoint now) {
    if (m_primary == peer) {
        m_lastCommand = now;
    }
}

// ---- IP configuration, power ---------------------------------------------------------------------------------------

void BootstrapRegisters::SetIpConfiguration(std::uint32_t address, std::uint32_t subnetMask, std::uint32_t gateway) {
    Poke(Register::CurrentIpAddress, address);
    Poke(Register::CurrentSubnetMask, subnetMask);
    Poke(Register::CurrentDefaultGateway, gateway);
}

void BootstrapRegisters::RestartIpConfiguration() {
    const bool persistent = (Peek(Register::CurrentIpConfiguration) & Gvcp::IpConfiguration::PersistentIp) != 0 &&
                            Peek(Register::PersistentIpAddress) != 0;
    if (persistent) {
        SetIpConfiguration(Peek(Register::PersistentIpAddress), Peek(Register::PersistentSubnetMask),
                           Peek(Register::PersistentDefaultGateway));
    } else {
        SetIpConfiguration(m_firstAddress, m_firstSubnetMask, m_firstGateway);
    }
}

void BootstrapRegisters::PowerCycle() {
    ReleaseControl();
    Poke(Register::HeartbeatTimeout, m_defaultHeartbeatTimeout);
    Poke(Register::GvcpConfiguration, 0);
    Poke(Register::StreamChannelPacketSize, 0);
    Poke(Register::StreamChannelPacketDelay, 0);
    RestartIpConfiguration();
}

// ---- Discovery -----------------------------------------------------------------------------------------------------

std::chrono::milliseconds BootstrapRegisters::GetDiscoveryDelay() const {
    return std::chrono::milliseconds(Peek(Register::DiscoveryAckDelay));
}

GvcpDiscoveryRecord BootstrapRegisters::GetDiscoveryRecord() const {
    std::array<std::uint8_t, Gvcp::DiscoveryPayloadBytes> image;
    for (std::uint32_t address = 0; address < image.size(); address += 4) {
        Gvcp::StoreU32(&image[address], Peek(address));
    }
    return Gvcp::DecodeDiscoveryPayload(image);
}

}  // namespace Nimbrel2::Platform::Simulated
