// SPDX-License-Identifier: Apache-2.0
// What a node's configuration ROM tells (IEEE 1212, IIDC 1.30 chapter 2). Pure: no lock, no I/O, any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_CONFIGROM_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_CONFIGROM_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Nimbrel2::Platform::FireWire {

/// The kernel reads no more of a ROM.
inline constexpr std::size_t MaxRomQuadlets = 256;

struct RomUnit {
    std::uint32_t specifier = 0;
    std::uint32_t version = 0;
    std::string vendor;  ///< of the unit dependent directory; empty when it has none
    std::string model;

    /// A camera of the 1394 trade association's digital camera specification, 1.04 to 1.39. Its specifier alone is also
    /// that of camcorders, audio and vendors' own units.
    bool IsCamera() const { return specifier == 0x00A02D && version >= 0x000100 && version <= 0x000102; }

    bool operator==(const RomUnit&) const = default;
};

struct RomInfo {
    std::uint64_t eui64 = 0;
    bool cycleMasterCapable = false;
    std::string vendor;  ///< of the root directory; empty when it has none
    std::string model;
    std::vector<RomUnit> units;

    /// The first unit that is a camera; null for none.
    const RomUnit* FindCamera() const;
    /// The camera's own texts, or else those of the root directory.
    const std::string& GetVendor() const;
    const std::string& GetModel() const;

    bool operator==(const RomInfo&) const = default;
};

/// @param quadlets  In host order, the bus information block first. Anything may stand in them: what points outside, at
///                  itself or at something of another kind counts as missing.
/// @return nothing when there is no bus information block of IEEE 1394 in it.
std::optional<RomInfo> ParseConfigRom(std::span<const std::uint32_t> quadlets);

}  // namespace Nimbrel2::Platform::FireWire

#endif
