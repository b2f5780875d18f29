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

constexpr std::uint32_t kShortestHeartbeat = 500;  // milliseconds
constexpr std::uint32_t kTimestampTicksPerSecond = 1000000000;
constexpr std::uint32_t kLongestCommand = 1000;  // milliseconds
constexpr std::uint32_t kAccessBits = Gvcp::Ccp::kExclusiveAccess | Gvcp::Ccp::kControlAccess;
constexpr std::uint32_t kSupportedIpConfiguration =
    Gvcp::IpConfiguration::kPersistentIp | Gvcp::IpConfiguration::kDhcp | Gvcp::IpConfiguration::kLinkLocalAddress;
constexpr std::uint32_t kMono8 = 0x01080001;

std::uint32_t CapabilitiesOf(const SimulatedCameraOptions& options) {
    namespace Capability = Gvcp::Capability;
    std::uint32_t bits = Capability::kWriteMem | Capability::kPendingAck | Capability::kDiscoveryAckDelay |
                         Capability::kDiscoveryAckDelayWritable | Capability::kLinkSpeed |
                         Capability::kHeartbeatDisable | Capability::kSerialNumber | Capability::kUserDefinedName;
    if (options.concatenation) bits |= Capability::kConcatenation;
    if (options.tellsOwner) bits |= Capability::kPrimaryApplicationPortAndIp;
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
      m_defaultHeartbeatTimeout(std::max(options.heartbeatTimeout, kShortestHeartbeat)) {
    AddDiscoveryRegions(options);
    AddControlRegions(options);
    AddImageRegions();
    AddDescription();
    RestartIpConfiguration();
    if (options.owner) HoldControl(*options.owner);
}

// ---- What is where -------------------------------------------------------------------------------------------------

void BootstrapRegisters::AddRegion(std::uint32_t begin, std::size_t size, Access access) {
    m_regions.push_back({begin, access, std::vector<std::uint8_t>(size)});
}

void BootstrapRegisters::AddDiscoveryRegions(const SimulatedCameraOptions& options) {
    // The words between the registers are read as 0: a discovery acknowledge shows all of this block.
    AddRegion(Register::kVersion, Register::kCurrentIpConfiguration, Access::ReadOnly);
    AddRegion(Register::kCurrentIpConfiguration, 4, Access::ReadWrite);
    AddRegion(Register::kCurrentIpConfiguration + 4, Register::kUserDefinedName - Register::kCurrentIpConfiguration - 4,
              Access::ReadOnly);
    AddRegion(Register::kUserDefinedName, Gvcp::kUserDefinedNameBytes, Access::ReadWrite);

    Poke(Register::kVersion, static_cast<std::uint32_t>(options.versionMajor) << 16 | options.versionMinor);
    Poke(Register::kDeviceMode, options.deviceMode);
    Poke(Register::kDeviceMacAddressHigh, static_cast<std::uint32_t>(m_mac >> 32));
    Poke(Register::kDeviceMacAddressLow, static_cast<std::uint32_t>(m_mac));
    Poke(Register::kSupportedIpConfiguration, kSupportedIpConfiguration);
    Poke(Register::kCurrentIpConfiguration,
         Gvcp::IpConfiguration::kDhcp | Gvcp::IpConfiguration::kLinkLocalAddress |
             (options.persistentIpEnabled ? Gvcp::IpConfiguration::kPersistentIp : 0));
    SetText(Register::kManufacturerName, Gvcp::kManufacturerNameBytes, options.vendor);
    SetText(Register::kModelName, Gvcp::kModelNameBytes, options.model);
    SetText(Register::kDeviceVersion, Gvcp::kDeviceVersionBytes, options.deviceVersion);
    SetText(Register::kManufacturerInfo, Gvcp::kManufacturerInfoBytes, options.info);
    SetText(Register::kSerialNumber, Gvcp::kSerialNumberBytes, options.serialNumber);
    SetText(Register::kUserDefinedName, Gvcp::kUserDefinedNameBytes, options.userDefinedName);
}

void BootstrapRegisters::AddControlRegions(const SimulatedCameraOptions& options) {
    AddRegion(Register::kFirstUrl, Gvcp::kUrlBytes, Access::ReadOnly);
    AddRegion(Register::kSecondUrl, Gvcp::kUrlBytes, Access::ReadOnly);
    AddRegion(Register::kNumberOfNetworkInterfaces, 4, Access::ReadOnly);
    AddRegion(Register::kPersistentIpAddress, 4, Access::ReadWrite);
    AddRegion(Register::kPersistentSubnetMask, 4, Access::ReadWrite);
    AddRegion(Register::kPersistentDefaultGateway, 4, Access::ReadWrite);
    AddRegion(Register::kLinkSpeed, 4, Access::ReadOnly);
    AddRegion(Register::kNumberOfMessageChannels, 4, Access::ReadOnly);
    AddRegion(Register::kNumberOfStreamChannels, 4, Access::ReadOnly);
    AddRegion(Register::kNumberOfActionSignals, 4, Access::ReadOnly);
    AddRegion(Register::kGvcpCapability, 4, Access::ReadOnly);
    AddRegion(Register::kHeartbeatTimeout, 4, Access::ReadWrite);
    AddRegion(Register::kTimestampTickFrequencyHigh, 8, Access::ReadOnly);
    AddRegion(Register::kDiscoveryAckDelay, 4, Access::ReadWrite);
    AddRegion(Register::kGvcpConfiguration, 4, Access::ReadWrite);
    AddRegion(Register::kPendingTimeout, 4, Access::ReadOnly);
    AddRegion(Register::kControlChannelPrivilege, 4, Access::ReadWrite);
    if (m_tellsOwner) {
        AddRegion(Register::kPrimaryApplicationPort, 4, Access::ReadOnly);
        AddRegion(Register::kPrimaryApplicationIpAddress, 4, Access::ReadOnly);
    }
    AddRegion(Register::kStreamChannelPort, 4, Access::ReadWrite);
    AddRegion(Register::kStreamChannelPacketSize, 4, Access::ReadWrite);
    AddRegion(Register::kStreamChannelPacketDelay, 4, Access::ReadWrite);
    AddRegion(Register::kStreamChannelDestination, 4, Access::ReadWrite);

    Poke(Register::kNumberOfNetworkInterfaces, 1);
    Poke(Register::kPersistentIpAddress, options.persistentAddress);
    Poke(Register::kPersistentSubnetMask, options.persistentSubnetMask);
    Poke(Register::kPersistentDefaultGateway, options.persistentGateway);
    Poke(Register::kLinkSpeed, options.linkSpeed);
    Poke(Register::kNumberOfStreamChannels, 1);
    Poke(Register::kGvcpCapability, CapabilitiesOf(options));
    Poke(Register::kHeartbeatTimeout, m_defaultHeartbeatTimeout);
    Poke(Register::kTimestampTickFrequencyLow, kTimestampTicksPerSecond);
    Poke(Register::kDiscoveryAckDelay, options.discoveryDelay);
    Poke(Register::kPendingTimeout, kLongestCommand);
}

void BootstrapRegisters::AddImageRegions() {
    AddRegion(ImageRegister::kFirst, ImageRegister::kBytes, Access::ReadWrite);
    Poke(ImageRegister::kWidth, 640);
    Poke(ImageRegister::kHeight, 480);
    Poke(ImageRegister::kPixelFormat, kMono8);
    Poke(ImageRegister::kExposureTime, 10000);
}

void BootstrapRegisters::AddDescription() {
    const std::string_view description = GetGenicamDescription();
    AddRegion(kDescriptionAddress, description.size(), Access::ReadOnly);
    std::copy(description.begin(), description.end(), m_regions.back().bytes.begin());

    std::array<char, 64> url{};
    std::snprintf(url.data(), url.size(), "Local:nimbrel2_simulated.xml;%X;%zX", kDescriptionAddress,
                  description.size());
    SetText(Register::kFirstUrl, Gvcp::kUrlBytes, url.data());
}

void BootstrapRegisters::SetText(std::uint32_t address, std::size_t size, std::string_view text) {
    const std::string_view fitting = text.substr(0, size);
    std::array<std::uint8_t, Gvcp::kUrlBytes> field{};
    std::copy(fitting.begin(), fitting.end(), field.begin());
    for (std::uint32_t offset = 0; offset < size; offset += 4) Poke(address + offset, Gvcp::LoadU32(&field[offset]));
}

const BootstrapRegisters::Region* BootstrapRegisters::FindRegion(std::uint32_t address) const {
    const auto after = std::upper_bound(m_regions.begin(), m_regions.end(), address,
                                        [](std::uint32_t value, const Region& region) { return value < region.begin; });
    if (after == m_regions.begin()) return nullptr;
    const Region& region = *std::prev(after);
    return address - region.begin < region.bytes.size() ? &region : nullptr;
}

const std::uint8_t* BootstrapRegisters::FindWord(std::uint32_t address, Access* access) const {
    if (address % 4 != 0) return nullptr;
    const Region* region = FindRegion(address);
    if (region == nullptr) return nullptr;
    if (access != nullptr) *access = region->access;
    return &region->bytes[address - region->begin];
}

std::uint32_t BootstrapRegisters::Peek(std::uint32_t address) const {
    const std::uint8_t* word = FindWord(address, nullptr);
    return word == nullptr ? 0 : Gvcp::LoadU32(word);
}

bool BootstrapRegisters::Poke(std::uint32_t address, std::uint32_t value) {
    const Region* found = FindRegion(address);
    if (found == nullptr || address % 4 != 0) return false;
    Region& region = m_regions[static_cast<std::size_t>(found - m_regions.data())];
    Gvcp::StoreU32(&region.bytes[address - region.begin], value);
    return true;
}

// ---- Who may do what -----------------------------------------------------------------------------------------------

bool BootstrapRegisters::IsLockedFor(const Endpoint& peer) const {
    return (GetControlPrivilege() & Gvcp::Ccp::kExclusiveAccess) != 0 && m_primary != peer;
}

Status BootstrapRegisters::Read(const Endpoint& peer, std::uint32_t address, std::uint32_t* value) const {
    if (IsLockedFor(peer)) return Status::AccessDenied;
    if (address % 4 != 0) return Status::BadAlignment;
    const std::uint8_t* word = FindWord(address, nullptr);
    if (word == nullptr) return Status::InvalidAddress;
    *value = Gvcp::LoadU32(word);
    return Status::Success;
}

Status BootstrapRegisters::ReadMemory(const Endpoint& peer, std::uint32_t address, std::size_t count,
                                      std::uint8_t* bytes) const {
    if (IsLockedFor(peer)) return Status::AccessDenied;
    if (address % 4 != 0 || count % 4 != 0) return Status::BadAlignment;
    if (count == 0 || count > Gvcp::kMaxMemoryBytes) return Status::InvalidParameter;
    std::array<std::uint8_t, Gvcp::kMaxMemoryBytes> data;
    for (std::uint32_t offset = 0; offset < count; offset += 4) {
        if (address > UINT32_MAX - offset) return Status::InvalidAddress;
        const std::uint8_t* word = FindWord(address + offset, nullptr);
        if (word == nullptr) return Status::InvalidAddress;
        std::memcpy(&data[offset], word, 4);
    }
    std::memcpy(bytes, data.data(), count);
    return Status::Success;
}

Status BootstrapRegisters::CheckWrite(const Endpoint& peer, std::uint32_t address) const {
    if (IsControlHeld() && m_primary != peer) return Status::AccessDenied;
    if (address % 4 != 0) return Status::BadAlignment;
    Access access = Access::ReadOnly;
    if (FindWord(address, &access) == nullptr) return Status::InvalidAddress;
    if (access == Access::ReadOnly) return Status::WriteProtect;
    if (!IsControlHeld() && address != Register::kControlChannelPrivilege) return Status::AccessDenied;
    return Status::Success;
}

Status BootstrapRegisters::Write(const Endpoint& peer, std::uint32_t address, std::uint32_t value, TimePoint now) {
    const Status status = CheckWrite(peer, address);
    if (status != Status::Success) return status;
    if (address == Register::kControlChannelPrivilege) return WriteControl(peer, value, now);
    Store(address, value);
    return Status::Success;
}

Status BootstrapRegisters::WriteMemory(const Endpoint& peer, std::uint32_t address, Gvcp::Bytes data, TimePoint now,
                                       std::uint16_t* written) {
    *written = 0;
    if (data.size() % 4 != 0) return IsControlHeld() && m_primary != peer ? Status::AccessDenied : Status::BadAlignment;
    if (data.empty() || data.size() > Gvcp::kMaxMemoryBytes) return Status::InvalidParameter;
    for (std::uint32_t offset = 0; offset < data.size(); offset += 4) {
        if (address > UINT32_MAX - offset) return Status::InvalidAddress;
        const Status status = Write(peer, address + offset, Gvcp::LoadU32(&data[offset]), now);
        if (status != Status::Success) return status;
        *written = static_cast<std::uint16_t>(offset + 4);
    }
    return Status::Success;
}

// ---- What follows from a write -------------------------------------------------------------------------------------

void BootstrapRegisters::Store(std::uint32_t address, std::uint32_t value) {
    switch (address) {
        case Register::kCurrentIpConfiguration:
            value = (value & kSupportedIpConfiguration) | Gvcp::IpConfiguration::kLinkLocalAddress;
            break;
        case Register::kHeartbeatTimeout:
            value = std::max(value, kShortestHeartbeat);
            break;
        case Register::kDiscoveryAckDelay:
            value &= 0xFFFF;
            break;
        case Register::kGvcpConfiguration:
            value &= Gvcp::GvcpConfiguration::kHeartbeatDisable | Gvcp::GvcpConfiguration::kPendingAckEnable;
            break;
        default:
            break;
    }
    Poke(address, value);
}

Status BootstrapRegisters::WriteControl(const Endpoint& peer, std::uint32_t value, TimePoint now) {
    // Switchover is no capability of this camera: its bit and its key change nothing.
    const std::uint32_t privilege = value & kAccessBits;
    if (privilege == 0) {
        ReleaseControl();
        return Status::Success;
    }
    if (!m_primary) {
        m_primary = peer;
        m_heartbeatRuns = true;
        m_lastCommand = now;
        Poke(Register::kPrimaryApplicationPort, peer.port);
        Poke(Register::kPrimaryApplicationIpAddress, peer.address);
    }
    Poke(Register::kControlChannelPrivilege, privilege);
    return Status::Success;
}

void BootstrapRegisters::ReleaseControl() {
    m_primary.reset();
    m_heartbeatRuns = false;
    Poke(Register::kControlChannelPrivilege, 0);
    Poke(Register::kPrimaryApplicationPort, 0);
    Poke(Register::kPrimaryApplicationIpAddress, 0);
    Poke(Register::kStreamChannelPort, 0);
    Poke(Register::kStreamChannelDestination, 0);
}

void BootstrapRegisters::HoldControl(const ControlOwner& owner) {
    m_primary = owner.endpoint;
    m_heartbeatRuns = false;
    Poke(Register::kControlChannelPrivilege, owner.exclusive ? Gvcp::Ccp::kExclusiveAccess : Gvcp::Ccp::kControlAccess);
    Poke(Register::kPrimaryApplicationPort, owner.endpoint.port);
    Poke(Register::kPrimaryApplicationIpAddress, owner.endpoint.address);
}

void BootstrapRegisters::ExpireControl(TimePoint now) {
    if (!m_heartbeatRuns) return;
    if ((Peek(Register::kGvcpConfiguration) & Gvcp::GvcpConfiguration::kHeartbeatDisable) != 0) return;
    if (now - m_lastCommand >= std::chrono::milliseconds(Peek(Register::kHeartbeatTimeout))) ReleaseControl();
}

void BootstrapRegisters::Touch(const Endpoint& peer, TimePoint now) {
    if (m_primary == peer) m_lastCommand = now;
}

// ---- IP configuration, power ---------------------------------------------------------------------------------------

void BootstrapRegisters::SetIpConfiguration(std::uint32_t address, std::uint32_t subnetMask, std::uint32_t gateway) {
    Poke(Register::kCurrentIpAddress, address);
    Poke(Register::kCurrentSubnetMask, subnetMask);
    Poke(Register::kCurrentDefaultGateway, gateway);
}

void BootstrapRegisters::RestartIpConfiguration() {
    const bool persistent = (Peek(Register::kCurrentIpConfiguration) & Gvcp::IpConfiguration::kPersistentIp) != 0 &&
                            Peek(Register::kPersistentIpAddress) != 0;
    if (persistent) {
        SetIpConfiguration(Peek(Register::kPersistentIpAddress), Peek(Register::kPersistentSubnetMask),
                           Peek(Register::kPersistentDefaultGateway));
    } else {
        SetIpConfiguration(m_firstAddress, m_firstSubnetMask, m_firstGateway);
    }
}

void BootstrapRegisters::PowerCycle() {
    ReleaseControl();
    Poke(Register::kHeartbeatTimeout, m_defaultHeartbeatTimeout);
    Poke(Register::kGvcpConfiguration, 0);
    Poke(Register::kStreamChannelPacketSize, 0);
    Poke(Register::kStreamChannelPacketDelay, 0);
    RestartIpConfiguration();
}

// ---- Discovery -----------------------------------------------------------------------------------------------------

std::chrono::milliseconds BootstrapRegisters::GetDiscoveryDelay() const {
    return std::chrono::milliseconds(Peek(Register::kDiscoveryAckDelay));
}

GvcpDiscoveryRecord BootstrapRegisters::GetDiscoveryRecord() const {
    std::array<std::uint8_t, Gvcp::kDiscoveryPayloadBytes> image;
    for (std::uint32_t address = 0; address < image.size(); address += 4) {
        Gvcp::StoreU32(&image[address], Peek(address));
    }
    return Gvcp::DecodeDiscoveryPayload(image);
}

}  // namespace Nimbrel2::Platform::Simulated
