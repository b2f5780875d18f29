// SPDX-License-Identifier: Apache-2.0
// The numbers of GVCP, the GigE Vision control protocol, under the standard's names: message ids, statuses, flags,
// packet sizes, bootstrap registers. Constants only.
#ifndef NIMBREL2_PLATFORM_GVCP_GVCPCONSTANTS_H
#define NIMBREL2_PLATFORM_GVCP_GVCPCONSTANTS_H

#include <cstddef>
#include <cstdint>

namespace Nimbrel2::Platform::Gvcp {

/// UDP port that a device listens on.
inline constexpr std::uint16_t Port = 3956;

/// First byte of every command; no acknowledge begins with it.
inline constexpr std::uint8_t CommandKey = 0x42;

inline constexpr std::size_t HeaderBytes = 8;
/// An IP datagram of 576 bytes less IP, UDP and GVCP headers.
inline constexpr std::size_t MaxPayloadBytes = 540;
inline constexpr std::size_t MaxPacketBytes = HeaderBytes + MaxPayloadBytes;
inline constexpr std::size_t MaxReadRegAddresses = MaxPayloadBytes / 4;
inline constexpr std::size_t MaxWriteRegPairs = MaxPayloadBytes / 8;
/// READMEM and WRITEMEM: the payload less the address.
inline constexpr std::size_t MaxMemoryBytes = MaxPayloadBytes - 4;
inline constexpr std::size_t DiscoveryPayloadBytes = 248;
inline constexpr std::size_t ForceIpPayloadBytes = 56;

/// What stands at offset 2 of a packet. An acknowledge's id is its command's plus one, except for PENDING_ACK.
enum class MessageId : std::uint16_t {
    DiscoveryCmd = 0x0002,
    DiscoveryAck = 0x0003,
    ForceIpCmd = 0x0004,
    ForceIpAck = 0x0005,
    PacketResendCmd = 0x0040,
    PacketResendAck = 0x0041,
    ReadRegCmd = 0x0080,
    ReadRegAck = 0x0081,
    WriteRegCmd = 0x0082,
    WriteRegAck = 0x0083,
    ReadMemCmd = 0x0084,
    ReadMemAck = 0x0085,
    WriteMemCmd = 0x0086,
    WriteMemAck = 0x0087,
    PendingAck = 0x0089,
    EventCmd = 0x00C0,
    EventAck = 0x00C1,
    EventDataCmd = 0x00C2,
    EventDataAck = 0x00C3,
    ActionCmd = 0x0100,
    ActionAck = 0x0101,
};

/// Status of an acknowledge. A device may send values that are not listed here.
enum class Status : std::uint16_t {
    Success = 0x0000,
    PacketResend = 0x0100,
    NotImplemented = 0x8001,
    InvalidParameter = 0x8002,
    InvalidAddress = 0x8003,
    WriteProtect = 0x8004,
    BadAlignment = 0x8005,
    AccessDenied = 0x8006,
    Busy = 0x8007,
    LocalProblem = 0x8008,
    MsgMismatch = 0x8009,
    InvalidProtocol = 0x800A,
    NoMsg = 0x800B,
    PacketUnavailable = 0x800C,
    DataOverrun = 0x800D,
    InvalidHeader = 0x800E,
    WrongConfig = 0x800F,
    PacketNotYetAvailable = 0x8010,
    PacketAndPrevRemovedFromMemory = 0x8011,
    PacketRemovedFromMemory = 0x8012,
    NoRefTime = 0x8013,
    PacketTemporarilyUnavailable = 0x8014,
    Overflow = 0x8015,
    ActionLate = 0x8016,
    LeaderTrailerOverflow = 0x8017,
    Error = 0x8FFF,
};

/// Flags of a command, at offset 1.
namespace Flag {
inline constexpr std::uint8_t AcknowledgeRequired = 0x01;
inline constexpr std::uint8_t AllowBroadcastAcknowledge = 0x10;  ///< DISCOVERY and FORCEIP
}  // namespace Flag

/// Addresses of the bootstrap registers of network interface 0. 32 bits each unless a size is named beside them.
namespace Register {
inline constexpr std::uint32_t Version = 0x0000;
inline constexpr std::uint32_t DeviceMode = 0x0004;
inline constexpr std::uint32_t DeviceMacAddressHigh = 0x0008;
inline constexpr std::uint32_t DeviceMacAddressLow = 0x000C;
inline constexpr std::uint32_t SupportedIpConfiguration = 0x0010;
inline constexpr std::uint32_t CurrentIpConfiguration = 0x0014;
inline constexpr std::uint32_t CurrentIpAddress = 0x0024;
inline constexpr std::uint32_t CurrentSubnetMask = 0x0034;
inline constexpr std::uint32_t CurrentDefaultGateway = 0x0044;
inline constexpr std::uint32_t ManufacturerName = 0x0048;
inline constexpr std::uint32_t ModelName = 0x0068;
inline constexpr std::uint32_t DeviceVersion = 0x0088;
inline constexpr std::uint32_t ManufacturerInfo = 0x00A8;
inline constexpr std::uint32_t SerialNumber = 0x00D8;
inline constexpr std::uint32_t UserDefinedName = 0x00E8;
inline constexpr std::uint32_t FirstUrl = 0x0200;
inline constexpr std::uint32_t SecondUrl = 0x0400;
inline constexpr std::uint32_t NumberOfNetworkInterfaces = 0x0600;
inline constexpr std::uint32_t PersistentIpAddress = 0x064C;
inline constexpr std::uint32_t PersistentSubnetMask = 0x065C;
inline constexpr std::uint32_t PersistentDefaultGateway = 0x066C;
inline constexpr std::uint32_t LinkSpeed = 0x0670;
inline constexpr std::uint32_t NumberOfMessageChannels = 0x0900;
inline constexpr std::uint32_t NumberOfStreamChannels = 0x0904;
inline constexpr std::uint32_t NumberOfActionSignals = 0x0908;
inline constexpr std::uint32_t GvcpCapability = 0x0934;
inline constexpr std::uint32_t HeartbeatTimeout = 0x0938;
inline constexpr std::uint32_t TimestampTickFrequencyHigh = 0x093C;
inline constexpr std::uint32_t TimestampTickFrequencyLow = 0x0940;
inline constexpr std::uint32_t DiscoveryAckDelay = 0x0950;
inline constexpr std::uint32_t GvcpConfiguration = 0x0954;
inline constexpr std::uint32_t PendingTimeout = 0x0958;
inline constexpr std::uint32_t ControlSwitchoverKey = 0x095C;
inline constexpr std::uint32_t ControlChannelPrivilege = 0x0A00;
inline constexpr std::uint32_t PrimaryApplicationPort = 0x0A04;
inline constexpr std::uint32_t PrimaryApplicationIpAddress = 0x0A14;
inline constexpr std::uint32_t MessageChannelPort = 0x0B00;
inline constexpr std::uint32_t MessageChannelDestination = 0x0B10;
inline constexpr std::uint32_t StreamChannelPort = 0x0D00;
inline constexpr std::uint32_t StreamChannelPacketSize = 0x0D04;
inline constexpr std::uint32_t StreamChannelPacketDelay = 0x0D08;
inline constexpr std::uint32_t StreamChannelDestination = 0x0D18;
inline constexpr std::uint32_t ManufacturerSpecific = 0xA000;
}  // namespace Register

/// Sizes in bytes of the bootstrap texts.
inline constexpr std::size_t ManufacturerNameBytes = 32;
inline constexpr std::size_t ModelNameBytes = 32;
inline constexpr std::size_t DeviceVersionBytes = 32;
inline constexpr std::size_t ManufacturerInfoBytes = 48;
inline constexpr std::size_t SerialNumberBytes = 16;
inline constexpr std::size_t UserDefinedNameBytes = 16;
inline constexpr std::size_t UrlBytes = 512;

/// Bits of Register::ControlChannelPrivilege.
namespace Ccp {
inline constexpr std::uint32_t ExclusiveAccess = 0x00000001;
inline constexpr std::uint32_t ControlAccess = 0x00000002;
inline constexpr std::uint32_t ControlSwitchoverEnable = 0x00000004;
inline constexpr std::uint32_t ControlSwitchoverKey = 0xFFFF0000;
}  // namespace Ccp

/// Bits of Register::GvcpCapability.
namespace Capability {
inline constexpr std::uint32_t Concatenation = 0x00000001;
inline constexpr std::uint32_t WriteMem = 0x00000002;
inline constexpr std::uint32_t PacketResend = 0x00000004;
inline constexpr std::uint32_t Event = 0x00000008;
inline constexpr std::uint32_t EventData = 0x00000010;
inline constexpr std::uint32_t PendingAck = 0x00000020;
inline constexpr std::uint32_t Action = 0x00000040;
inline constexpr std::uint32_t PrimaryApplicationSwitchover = 0x00200000;
inline constexpr std::uint32_t ExtendedStatusCodes = 0x00400000;
inline constexpr std::uint32_t DiscoveryAckDelayWritable = 0x00800000;
inline constexpr std::uint32_t DiscoveryAckDelay = 0x01000000;
inline constexpr std::uint32_t TestData = 0x02000000;
inline constexpr std::uint32_t ManifestTable = 0x04000000;
inline constexpr std::uint32_t PrimaryApplicationPortAndIp = 0x08000000;
inline constexpr std::uint32_t LinkSpeed = 0x10000000;
inline constexpr std::uint32_t HeartbeatDisable = 0x20000000;
inline constexpr std::uint32_t SerialNumber = 0x40000000;
inline constexpr std::uint32_t UserDefinedName = 0x80000000;
}  // namespace Capability

/// Bits of the supported and current IP configuration registers.
namespace IpConfiguration {
inline constexpr std::uint32_t PersistentIp = 0x00000001;
inline constexpr std::uint32_t Dhcp = 0x00000002;
inline constexpr std::uint32_t LinkLocalAddress = 0x00000004;  ///< cannot be switched off
}  // namespace IpConfiguration

/// Bits of Register::GvcpConfiguration.
namespace GvcpConfiguration {
inline constexpr std::uint32_t HeartbeatDisable = 0x00000001;
inline constexpr std::uint32_t PendingAckEnable = 0x00000002;
}  // namespace GvcpConfiguration

}  // namespace Nimbrel2::Platform::Gvcp

#endif
