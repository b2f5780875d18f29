// SPDX-License-Identifier: Apache-2.0
// GVCP packets as they stand on the wire, every field by itself. All of them were sent between independent programs and
// dissected by tshark without a complaint.
#ifndef NIMBREL2_TESTS_PLATFORM_GVCP_GOLDENPACKETS_H
#define NIMBREL2_TESTS_PLATFORM_GVCP_GOLDENPACKETS_H

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace Nimbrel2::Platform::Gvcp::Testing {

using ByteVector = std::vector<std::uint8_t>;

inline ByteVector Join(std::initializer_list<ByteVector> parts) {
    ByteVector whole;
    for (const ByteVector& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

inline ByteVector Zeros(std::size_t count) { return ByteVector(count, 0); }

/// A text in a field of that many bytes.
inline ByteVector Text(std::string_view text, std::size_t size) {
    ByteVector field(text.begin(), text.end());
    field.resize(size);
    return field;
}

namespace Golden {

inline ByteVector DiscoveryCmd() {
    return {0x42,         // key
            0x11,         // flags: acknowledge required, broadcast acknowledge allowed
            0x00, 0x02,   // DISCOVERY_CMD
            0x00, 0x00,   // length
            0x00, 0x01};  // req_id
}

inline ByteVector ReadRegCmd() {
    return {0x42,                     // key
            0x01,                     // flags: acknowledge required
            0x00, 0x80,               // READREG_CMD
            0x00, 0x04,               // length
            0x00, 0x0a,               // req_id
            0x00, 0x00, 0x00, 0x24};  // address: current IP address
}

inline ByteVector ReadRegAck() {
    return {0x00, 0x00,               // status: success
            0x00, 0x81,               // READREG_ACK
            0x00, 0x04,               // length
            0x00, 0x0a,               // ack_id
            0xc0, 0xa8, 0x4d, 0x65};  // 192.168.77.101
}

inline ByteVector ReadFourRegistersCmd() {
    return {0x42,                     // key
            0x01,                     // flags: acknowledge required
            0x00, 0x80,               // READREG_CMD
            0x00, 0x10,               // length
            0x00, 0x1e,               // req_id
            0x00, 0x00, 0x00, 0x24,   // current IP address
            0x00, 0x00, 0x0a, 0x00,   // control channel privilege
            0x00, 0x00, 0x0a, 0x04,   // primary application port
            0x00, 0x00, 0x0a, 0x14};  // primary application IP address
}

inline ByteVector ReadMemCmd() {
    return {0x42,                    // key
            0x01,                    // flags: acknowledge required
            0x00, 0x84,              // READMEM_CMD
            0x00, 0x08,              // length
            0x00, 0x21,              // req_id
            0x00, 0x00, 0x00, 0x48,  // address: manufacturer name
            0x00, 0x00,              // reserved
            0x00, 0x20};             // count
}

inline ByteVector ReadMemAck() {
    return Join({{0x00, 0x00,               // status: success
                  0x00, 0x85,               // READMEM_ACK
                  0x00, 0x24,               // length
                  0x00, 0x21,               // ack_id
                  0x00, 0x00, 0x00, 0x48},  // address
                 Text("Aravis", 32)});      // data
}

inline ByteVector WriteRegCmd() {
    return {0x42,                     // key
            0x01,                     // flags: acknowledge required
            0x00, 0x82,               // WRITEREG_CMD
            0x00, 0x08,               // length
            0x00, 0x2f,               // req_id
            0x00, 0x00, 0x0a, 0x00,   // address: control channel privilege
            0x00, 0x00, 0x00, 0x02};  // value: control access
}

inline ByteVector WriteRegAck() {
    return {0x00, 0x00,   // status: success
            0x00, 0x83,   // WRITEREG_ACK
            0x00, 0x04,   // length
            0x00, 0x2f,   // ack_id
            0x00, 0x00,   // reserved
            0x00, 0x01};  // index
}

inline ByteVector ForceIpCmd() {
    return Join({{0x42,                       // key
                  0x11,                       // flags: acknowledge required, broadcast acknowledge allowed
                  0x00, 0x04,                 // FORCEIP_CMD
                  0x00, 0x38,                 // length
                  0x00, 0x01,                 // req_id
                  0x00, 0x00,                 // reserved
                  0x02, 0x00,                 // MAC high: 02:00
                  0x00, 0x00, 0x09, 0x09},    // MAC low: 00:00:09:09
                 Zeros(12),                   // reserved
                 {0xc0, 0xa8, 0x4d, 0x32},    // static IP 192.168.77.50
                 Zeros(12),                   // reserved
                 {0xff, 0xff, 0xff, 0x00},    // static subnet mask
                 Zeros(12),                   // reserved
                 {0xc0, 0xa8, 0x4d, 0xfe}});  // static default gateway 192.168.77.254
}

inline ByteVector ForceIpAck() {
    return {0x00, 0x00,   // status: success
            0x00, 0x05,   // FORCEIP_ACK
            0x00, 0x00,   // length
            0x00, 0x01};  // ack_id
}

inline ByteVector DiscoveryAck() {
    return Join({{0x00, 0x00,               // status: success
                  0x00, 0x03,               // DISCOVERY_ACK
                  0x00, 0xf8,               // length
                  0x00, 0x01,               // ack_id
                  0x00, 0x02,               // version major
                  0x00, 0x01,               // version minor
                  0x80, 0x00, 0x00, 0x01,   // device mode: big-endian transmitter, UTF-8
                  0x00, 0x00,               // reserved
                  0x02, 0xb0,               // MAC high: 02:b0
                  0x5e, 0x0a, 0x0b, 0x0c,   // MAC low: 5e:0a:0b:0c
                  0x00, 0x00, 0x00, 0x07,   // supported IP configuration: persistent, DHCP, LLA
                  0x00, 0x00, 0x00, 0x06},  // current IP configuration: DHCP, LLA
                 Zeros(12),                 // reserved
                 {0xc0, 0xa8, 0x4d, 0x65},  // current IP address 192.168.77.101
                 Zeros(12),                 // reserved
                 {0xff, 0xff, 0xff, 0x00},  // current subnet mask
                 Zeros(12),                 // reserved
                 {0xc0, 0xa8, 0x4d, 0xfe},  // default gateway 192.168.77.254
                 Text("Maker", 32),         // manufacturer name
                 Text("Model", 32),         // model name
                 Text("1.2.3", 32),         // device version
                 Text("Info", 48),          // manufacturer specific information
                 Text("12345", 16),         // serial number
                 Text("left one", 16)});    // user defined name
}

inline ByteVector AbsentRegisterAck() {
    return {0x80, 0x03,   // status: invalid address
            0x00, 0x81,   // READREG_ACK
            0x00, 0x00,   // length
            0x00, 0x01};  // ack_id
}

inline ByteVector MisalignedReadMemAck() {
    return {0x80, 0x05,   // status: bad alignment
            0x00, 0x85,   // READMEM_ACK
            0x00, 0x00,   // length
            0x00, 0x01};  // ack_id
}

inline ByteVector PendingAck() {
    return {0x00, 0x00,   // status: success
            0x00, 0x89,   // PENDING_ACK
            0x00, 0x04,   // length
            0x00, 0x0a,   // ack_id
            0x00, 0x00,   // reserved
            0x01, 0xf4};  // time to completion: 500 ms
}

inline ByteVector WriteMemCmd() {
    return Join({{0x42,                     // key
                  0x01,                     // flags: acknowledge required
                  0x00, 0x86,               // WRITEMEM_CMD
                  0x00, 0x14,               // length
                  0x00, 0x33,               // req_id
                  0x00, 0x00, 0x00, 0xe8},  // address: user defined name
                 Text("left one", 16)});    // data
}

inline ByteVector WriteMemAck() {
    return {0x00, 0x00,   // status: success
            0x00, 0x87,   // WRITEMEM_ACK
            0x00, 0x04,   // length
            0x00, 0x33,   // ack_id
            0x00, 0x00,   // reserved
            0x00, 0x10};  // index: 16 bytes
}

}  // namespace Golden
}  // namespace Nimbrel2::Platform::Gvcp::Testing

#endif
