// SPDX-License-Identifier: Apache-2.0
// ARP packets: what is asked, and who says that an address is its own.
#include <gtest/gtest.h>

#include <vector>

#include "platform/linux/gige/ArpProbe.h"

namespace Nimbrel2::Platform::GigE {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t ProbedIp = 0xC0A84D32;  // 192.168.77.50

TEST(ArpProbe, NamesNoSender) {
    const auto packet = EncodeArpProbe(0x02005E000001, ProbedIp);
    const Bytes expected{0,    1,    8,    0,    6,    4,    0,    1,              // a request, IPv4 over Ethernet
                         0x02, 0x00, 0x5E, 0x00, 0x00, 0x01, 0,    0,    0,    0,  // the asker, without its address
                         0,    0,    0,    0,    0,    0,    0xC0, 0xA8, 0x4D, 0x32};
    EXPECT_EQ(Bytes(packet.begin(), packet.end()), expected);
}

Bytes Reply() {
    return {0,    1,    8,    0,    6,    4, 0,    2, 0x02, 0, 0, 0, 0x12, 0x34,
            0xC0, 0xA8, 0x4D, 0x32, 0x02, 0, 0x5E, 0, 0,    1, 0, 0, 0,    0};
}

TEST(ArpProbe, TakesARepliesSenderForTheOwner) { EXPECT_EQ(ParseArpOwner(Reply(), ProbedIp), 0x020000001234u); }

TEST(ArpProbe, TakesWhoeverSpeaksForTheAddressForItsOwner) {
    Bytes request = Reply();
    request[7] = 1;
    EXPECT_EQ(ParseArpOwner(request, ProbedIp), 0x020000001234u) << "it asks for somebody, from that address";
}

struct BadPacket {
    const char* name;
    std::size_t at;
    std::uint8_t value;
};

TEST(ArpProbe, IsNotAnsweredByAnythingElse) {
    const BadPacket rows[] = {
        {"another address", 17, 0x33}, {"no Ethernet", 1, 6},     {"no IPv4", 2, 0x86},
        {"long addresses", 4, 8},      {"short addresses", 5, 3}, {"neither asks nor says", 7, 3},
        {"operation 258", 6, 1},
    };
    for (const BadPacket& row : rows) {
        Bytes packet = Reply();
        packet[row.at] = row.value;
        EXPECT_EQ(ParseArpOwner(packet, ProbedIp), std::nullopt) << row.name;
    }
    const Bytes whole = Reply();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_EQ(ParseArpOwner({whole.data(), size}, ProbedIp), std::nullopt) << size;
    }
    Bytes padded = whole;
    padded.resize(46);
    EXPECT_EQ(ParseArpOwner(padded, ProbedIp), 0x020000001234u) << "short frames are padded";
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
