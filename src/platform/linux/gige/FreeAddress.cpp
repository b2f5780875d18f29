// SPDX-License-Identifier: Apache-2.0
// Addresses for cameras that have none that fits. Pure functions; any thread.
#include "platform/linux/gige/FreeAddress.h"

namespace Nimbrel2::Platform::GigE {

namespace {

// Spreads MAC addresses, which differ in few bits, over the whole subnet (the finalizer of SplitMix64).
std::uint64_t Mix(std::uint64_t value) {
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
    value = (value ^ value >> 27) * 0x94D049BB133111EB;
    return value ^ value >> 31;
}

}  // namespace

std::vector<std::uint32_t> FindFreeAddresses(const InterfaceAddress& subnet, const std::set<std::uint32_t>& taken,
                                             std::uint64_t seed, std::size_t count) {
    const std::uint32_t network = subnet.address & subnet.GetMask();
    const std::uint64_t size = std::uint64_t{1} << (32 - subnet.prefixLength);
    // The first address names the subnet and the last one all its hosts, except where there are just two (RFC 3021).
    const std::uint64_t reserved = size > 2 ? 1 : 0;
    if (size < 2) return {};
    const std::uint64_t hosts = size - 2 * reserved;

    std::vector<std::uint32_t> free;
    const std::uint64_t start = Mix(seed) % hosts;
    for (std::uint64_t i = 0; i < hosts && free.size() < count; ++i) {
        const auto ip = static_cast<std::uint32_t>(network + reserved + (start + i) % hosts);
        if (ip != subnet.address && taken.count(ip) == 0) free.push_back(ip);
    }
    return free;
}

}  // namespace Nimbrel2::Platform::GigE
