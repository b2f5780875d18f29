// SPDX-License-Identifier: Apache-2.0
// The numbers of GVCP, the GigE Vision control protocol, under the standard's names: message ids, statuses, flags,
// packet sizes, bootstrap registers. Constants only.
#ifndef NIMBREL2_PLATFORM_GVCP_GVCPCONSTANTS_H
#define NIMBREL2_PLATFORM_GVCP_GVCPCONSTANTS_H

#include <cstddef>
#include <cstdint>

namespace Nimbrel2::Platform::Gvcp {

/// UDP port that a device listens on.
inline constexpr std::uint16_t kPort = 3956;

/// First byte of every command; no acknowledge begins with it.
inline constexpr std::uint8_t kCommandKey = 0x42;

inline constexpr std::size_t kHeaderBytes = 8;
/// An IP datagram of 576 bytes less IP, UDP and GVCP headers.
inline constexpr std::size_t kMaxPayloadBytes = 540;
inline constexpr std::size_t kMaxPacketBytes = kHeaderBytes + kMaxPayloadBytes;
inline constexpr std::size_t kMaxReadRegAddresses = kMaxPayloadBytes / 4;
inline constexpr std::size_t kMaxWriteRegPairs = kMaxPayloadBytes / 8;
/// READMEM and WRITEMEM: the payload less the address.
inline constexpr std::size_t kMaxMemoryBytes = kMaxPayloadBytes - 4;
inline constexpr std::size_t kDiscoveryPayloadBytes = 248;
inline constexpr std::size_t kForceIpPayloadBytes = 56;

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
inline constexpr std::uint8_t kAcknowledgeRequired = 0x01;
inline constexpr std::uint8_t kAllowBroadcastAcknowledge = 0x10;  ///< DISCOVERY and FORCEIP
}  // namespace Flag

/// Addresses of the bootstrap registers of network interface 0. 32 bits each unless a size is named beside them.
namespace Register {
inline constexpr std::uint32_t kVersion = 0x0000;
inline constexpr std::uint32_t kDeviceMode = 0x0004;
inline constexpr std::uint32_t kDeviceMacAddressHigh = 0x0008;
inline constexpr std::uint32_t kDeviceMacAddressLow = 0x000C;
inline constexpr std::uint32_t kSupportedIpConfiguration = 0x0010;
inline constexpr std::uint32_t kCurrentIpConfiguration = 0x0014;
inline constexpr std::uint32_t kCurrentIpAddress = 0x0024;
inline constexpr std::uint32_t kCurrentSubnetMask = 0x0034;
inline constexpr std::uint32_t kCurrentDefaultGateway = 0x0044;
inline constexpr std::uint32_t kManufacturerName = 0x0048;
inline constexpr std::uint32_t kModelName = 0x0068;
inline constexpr std::uint32_t kDeviceVersion = 0x0088;
inline constexpr std::uint32_t kManufacturerInfo = 0x00A8;
inline constexpr std::uint32_t kSerialNumber = 0x00D8;
inline constexpr std::uint32_t kUserDefinedName = 0x00E8;
inline constexpr std::uint32_t kFirstUrl = 0x0200;
inline constexpr std::uint32_t kSecondUrl = 0x0400;
inline constexpr std::uint32_t kNumberOfNetworkInterfaces = 0x0600;
inline constexpr std::uint32_t kPersistentIpAddress = 0x064C;
inline constexpr std::uint32_t kPersistentSubnetMask = 0x065C;
inline constexpr std::uint32_t kPersistentDefaultGateway = 0x066C;
inline constexpr std::uint32_t kLinkSpeed = 0x0670;
inline constexpr std::uint32_t kNumberOfMessageChannels = 0x0900;
inline constexpr std::uint32_t kNumberOfStreamChannels = 0x0904;
inline constexpr std::uint32_t kNumberOfActionSignals = 0x0908;
inline constexpr std::uint32_t kGvcpCapability = 0x0934;
inline constexpr std::uint32_t kHeartbeatTimeout = 0x0938;
inline constexpr std::uint32_t kTimestampTickFrequencyHigh = 0x093C;
inline constexpr std::uint32_t kTimestampTickFrequencyLow = 0x0940;
inline constexpr std::uint32_t kDiscoveryAckDelay = 0x0950;
inline constexpr std::uint32_t kGvcpConfiguration = 0x0954;
inline constexpr std::uint32_t kPendingTimeout = 0x0958;
inline constexpr std::uint32_t kControlSwitchoverKey = 0x095C;
inline constexpr std::uint32_t kControlChannelPrivilege = 0x0A00;
inline constexpr std::uint32_t kPrimaryApplicationPort = 0x0A04;
inline constexpr std::uint32_t kPrimaryApplicationIpAddress = 0x0A14;
inline constexpr std::uint32_t kMessageChannelPort = 0x0B00;
inline constexpr std::uint32_t kMessageChannelDestination = 0x0B10;
inline constexpr std::uint32_t kStreamChannelPort = 0x0D00;
inline constexpr std::uint32_t kStreamChannelPacketSize = 0x0D04;
inline constexpr std::uint32_t kStreamChannelPacketDelay = 0x0D08;
inline constexpr std::uint32_t kStreamChannelDestination = 0x0D18;
inline constexpr std::uint32_t kManufacturerSpecific = 0xA000;
}  // namespace Register

/// Sizes in bytes of the bootstrap texts.
inline constexpr std::size_t kManufacturerNameBytes = 32;
inline constexpr std::size_t kModelNameBytes = 32;
inline constexpr std::size_t kDeviceVersionBytes = 32;
inline constexpr std::size_t kManufacturerInfoBytes = 48;
inline constexpr std::size_t kSerialNumberBytes = 16;
inline constexpr std::size_t kUserDefinedNameBytes = 16;
inline constexpr std::size_t kUrlBytes = 512;

/// Bits of Register::kControlChannelPrivilege.
namespace Ccp {
inline constexpr std::uint32_t kExclusiveAccess = 0x00000001;
inline constexpr std::uint32_t kControlAccess = 0x00000002;
inline constexpr std::uint32_t kControlSwitchoverEnable = 0x00000004;
inline constexpr std::uint32_t kControlSwitchoverKey = 0xFFFF0000;
}  // namespace Ccp

/// Bits of Register::kGvcpCapability.
namespace Capability {
inline constexpr std::uint32_t kConcatenation = 0x00000001;
inline constexpr std::uint32_t kWriteMem = 0x00000002;
inline constexpr std::uint32_t kPacketResend = 0x00000004;
inline constexpr std::uint32_t kEvent = 0x00000008;
inline constexpr std::uint32_t kEventData = 0x00000010;
inline constexpr std::uint32_t kPendingAck = 0x00000020;
inline constexpr std::uint32_t kAction = 0x00000040;
inline constexpr std::uint32_t kPrimaryApplicationSwitchover = 0x00200000;
inline constexpr std::uint32_t kExtendedStatusCodes = 0x00400000;
inline constexpr std::uint32_t kDiscoveryAckDelayWritable = 0x00800000;
inline constexpr std::uint32_t kDiscoveryAckDelay = 0x01000000;
inline constexpr std::uint32_t kTestData = 0x02000000;
inline constexpr std::uint32_t kManifestTable = 0x04000000;
inline constexpr std::uint32_t kPrimaryApplicationPortAndIp = 0x08000000;
inline constexpr std::uint32_t kLinkSpeed = 0x10000000;
inline constexpr std::uint32_t kHeartbeatDisable = 0x20000000;
inline constexpr std::uint32_t kSerialNumber = 0x40000000;
inline constexpr std::uint32_t kUserDefinedName = 0x80000000;
}  // namespace Capability

/// Bits of the supported and current IP configuration registers.
namespace IpConfiguration {
inline constexpr std::uint32_t kPersistentIp = 0x00000001;
inline constexpr std::uint32_t kDhcp = 0x00000002;
inline constexpr std::uint32_t kLinkLocalAddress = 0x00000004;  ///< cannot be switched off
}  // namespace IpConfiguration

/// Bits of Register::kGvcpConfiguration.
namespace GvcpConfiguration {
inline constexpr std::uint32_t kHeartbeatDisable = 0x00000001;
inline constexpr std::uint32_t kPendingAckEnable = 0x00000002;
}  // namespace GvcpConfiguration

}  // namespace Nimbrel2::Platform::Gvcp

#endif
