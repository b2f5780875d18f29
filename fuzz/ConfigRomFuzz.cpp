// SPDX-License-Identifier: Apache-2.0
// Any bytes as a configuration ROM: reading ends, and what is read lies in the ROM.
#include <cstring>
#include <vector>

#include "fuzz/Require.h"
#include "platform/linux/firewire/ConfigRom.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform::FireWire;
    // A block of exactly the ROM's size, so that a read behind its end is seen. Big-endian, as seeds are best read.
    std::vector<std::uint32_t> rom(size / 4);
    for (std::size_t i = 0; i < rom.size(); ++i) {
        rom[i] = std::uint32_t{data[4 * i]} << 24 | std::uint32_t{data[4 * i + 1]} << 16 |
                 std::uint32_t{data[4 * i + 2]} << 8 | data[4 * i + 3];
    }
    const auto info = ParseConfigRom(rom);
    if (!info) {
        return 0;
    }
    NIMBREL2_REQUIRE(rom.size() >= 5 && info->eui64 == (std::uint64_t{rom[3]} << 32 | rom[4]));
    const auto isText = [](const std::string& text) {
        return text.size() <= 4 * MaxRomQuadlets && text.find('\0') == std::string::npos;
    };
    NIMBREL2_REQUIRE(info->units.size() <= 16 && isText(info->vendor) && isText(info->model));
    for (const RomUnit& unit : info->units) {
        NIMBREL2_REQUIRE(isText(unit.vendor) && isText(unit.model) && unit.specifier <= 0xFFFFFF);
    }
    const RomUnit* camera = info->FindCamera();
    NIMBREL2_REQUIRE(camera == nullptr || camera->IsCamera());
    NIMBREL2_REQUIRE(isText(info->GetVendor()) && isText(info->GetModel()));
    // The same ROM says the same, and what is behind 256 quadlets says nothing.
    rom.resize(MaxRomQuadlets > rom.size() ? rom.size() : MaxRomQuadlets);
    NIMBREL2_REQUIRE(ParseConfigRom(rom) == info);
    return 0;
}
