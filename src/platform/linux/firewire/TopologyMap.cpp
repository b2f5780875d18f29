// SPDX-License-Identifier: Apache-2.0
// The topology map that a bus manager keeps. Pure: no lock, no I/O, any thread.
#include "platform/linux/firewire/TopologyMap.h"

#include <algorithm>

#include "platform/base/SelfIds.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

constexpr std::size_t HeaderBytes = 12;  // length and checksum, map generation, counts
constexpr std::size_t MaxSelfIds = 252;

std::size_t LoadHalf(std::span<const std::uint8_t> bytes, std::size_t offset) {
    return std::size_t{bytes[offset]} << 8 | bytes[offset + 1];
}

}  // namespace

// The checksum is not looked at: the map is the kernel's own and comes out of its memory in one piece.
std::uint32_t ParseTopologyMap(std::span<const std::uint8_t> bytes, std::vector<SelfIdPacket_t>* packets) {
    packets->clear();
    if (bytes.size() < HeaderBytes) {
        return HAL_BAD_ANSWER;
    }
    const std::size_t length = LoadHalf(bytes, 0);
    const std::size_t numNodes = LoadHalf(bytes, 8);
    const std::size_t numSelfIds = LoadHalf(bytes, 10);
    if (numSelfIds > MaxSelfIds || length != numSelfIds + 2 || bytes.size() < HeaderBytes + 4 * numSelfIds) {
        return HAL_BAD_ANSWER;
    }
    std::vector<SelfIdPacket_t> found(numSelfIds);
    for (std::size_t i = 0; i < numSelfIds; ++i) {
        std::copy_n(&bytes[HeaderBytes + 4 * i], 4, found[i].bytes);
    }
    const auto phys = DecodeSelfIds(found);
    if (!phys || phys->size() != numNodes) {
        return HAL_BAD_ANSWER;
    }
    *packets = std::move(found);
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform::FireWire
