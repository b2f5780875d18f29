// SPDX-License-Identifier: Apache-2.0
// What is read from the kernel's events, whole ones and others.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/linux/firewire/NodeEvent.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// The fields of an event, each of four octets in host order, behind a closure of eight.
Bytes Event(std::uint64_t closure, const std::vector<std::uint32_t>& words) {
    Bytes bytes(sizeof closure + 4 * words.size());
    std::memcpy(bytes.data(), &closure, sizeof closure);
    std::memcpy(bytes.data() + sizeof closure, words.data(), 4 * words.size());
    return bytes;
}

TEST(NodeEvent, OfABusResetTellsAllNumbers) {
    // type, node, local, bus manager, resource manager, root, generation, padding
    const NodeEvent event = ParseNodeEvent(Event(0, {0, 0xFFC1, 0xFFC2, 0xFFFF, 0xFFC3, 0xFFC4, 0x105, 0xDDDDDDDD}));
    const auto* reset = std::get_if<BusResetEvent>(&event);
    ASSERT_NE(reset, nullptr);
    EXPECT_EQ(reset->ids, (BusIds{0xFFC1, 0xFFC2, 0xFFFF, 0xFFC3, 0xFFC4, 0x05}));
}

TEST(NodeEvent, OfAResponseTellsItsPayload) {
    // A quadlet, which the kernel sends twice.
    const Bytes bytes = Event(7, {1, 0x12, 4, 0x04030201, 0x04030201});
    const NodeEvent event = ParseNodeEvent(bytes);
    const auto* response = std::get_if<ResponseEvent>(&event);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->closure, 7u);
    EXPECT_EQ(response->rcode, 0x12u);
    EXPECT_EQ(response->payload.size(), 4u);
    EXPECT_EQ(response->payload.data(), bytes.data() + 20);
}

TEST(NodeEvent, OfAPhyPacketTellsItsFirstQuadlet) {
    const NodeEvent received = ParseNodeEvent(Event(9, {8, 0, 8, 0x010C0123, 0xFEF3FEDC}));
    const auto* packet = std::get_if<PhyPacketEvent>(&received);
    ASSERT_NE(packet, nullptr);
    EXPECT_TRUE(packet->received);
    EXPECT_EQ(packet->quadlet, 0x010C0123u);
    const NodeEvent sent = ParseNodeEvent(Event(9, {7, 0x13, 0}));
    packet = std::get_if<PhyPacketEvent>(&sent);
    ASSERT_NE(packet, nullptr);
    EXPECT_FALSE(packet->received);
    EXPECT_EQ(packet->closure, 9u);
    EXPECT_EQ(packet->rcode, 0x13u);
}

TEST(NodeEvent, OfAnyOtherKindIsNobodys) {
    for (const std::uint32_t type : {2U, 3U, 9U, 11U, 0xFFFFFFFFU}) {
        EXPECT_TRUE(std::holds_alternative<std::monostate>(ParseNodeEvent(Event(0, {type, 0, 0, 0, 0, 0, 0, 0}))))
            << type;
    }
}

TEST(NodeEvent, ThatIsCutIsNobodys) {
    const std::vector<std::pair<Bytes, std::size_t>> whole{
        {Event(0, {0, 0, 0, 0, 0, 0, 0}), 36},  // the padding behind a bus reset may be missing
        {Event(0, {1, 0, 8, 1, 2}), 28},
        {Event(0, {8, 0, 8, 1, 2}), 28},
        {Event(0, {7, 0, 0}), 20},
    };
    for (const auto& [bytes, needed] : whole) {
        EXPECT_FALSE(std::holds_alternative<std::monostate>(ParseNodeEvent(bytes)));
        for (std::size_t size = 0; size < needed; ++size) {
            // A block of its own, so that a sanitizer sees a read behind it.
            const Bytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
            EXPECT_TRUE(std::holds_alternative<std::monostate>(ParseNodeEvent(cut))) << size;
        }
    }
    EXPECT_TRUE(std::holds_alternative<std::monostate>(ParseNodeEvent(Event(0, {8, 0, 3, 1}))))
        << "a PHY packet of three octets";
    EXPECT_TRUE(std::holds_alternative<std::monostate>(ParseNodeEvent(Event(0, {1, 0, 0xFFFFFFFF, 1}))));
}

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
