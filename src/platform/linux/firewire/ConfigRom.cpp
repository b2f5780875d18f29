// SPDX-License-Identifier: Apache-2.0
// What a node's configuration ROM tells. Pure: no lock, no I/O, any thread.
// A reference leads forwards by at least one quadlet and directories are read to a fixed depth, so reading ends.
#include "platform/linux/firewire/ConfigRom.h"

#include <algorithm>

namespace Nimbrel2::Platform::FireWire {
namespace {

using Quadlets = std::span<const std::uint32_t>;

constexpr std::uint32_t BusName = 0x31333934;  // "1394"
constexpr std::size_t BusInfoQuadlets = 5;
constexpr std::uint32_t CycleMasterCapable = 1U << 30;
// One after the other they could ask for 256 units, each with texts; no device has more than a few.
constexpr std::size_t MaxUnits = 16;

// Keys (IEEE 1212): the two top bits tell immediate, CSR offset, leaf and directory.
enum Key : std::uint32_t {
    Vendor = 0x03,
    Specifier = 0x12,
    Version = 0x13,
    Model = 0x17,
    TextLeaf = 0x81,
    ModelLeaf = 0x82,
    TextDirectory = 0xC1,
    ModelDirectory = 0xC2,
    Unit = 0xD1,
    UnitDependent = 0xD4,
};

struct Entry {
    std::size_t index = 0;  // where it stands
    std::uint32_t key = 0;
    std::uint32_t value = 0;
};

/// The quadlets of a directory or leaf behind its header, as many as there are. Empty when the header is outside.
Quadlets BlockAt(Quadlets rom, std::size_t header) {
    if (header >= rom.size()) {
        return {};
    }
    const Quadlets behind = rom.subspan(header + 1);
    return behind.first(std::min<std::size_t>(behind.size(), rom[header] >> 16));
}

std::vector<Entry> EntriesAt(Quadlets rom, std::size_t header) {
    std::vector<Entry> entries;
    std::size_t index = header;
    for (const std::uint32_t quadlet : BlockAt(rom, header)) {
        entries.push_back({++index, quadlet >> 24, quadlet & 0xFFFFFF});
    }
    return entries;
}

/// Where an entry leads; the ROM's end, where nothing is, when it leads to itself: that is what the kernel makes of a
/// reference that it could not follow.
std::size_t TargetOf(Quadlets rom, const Entry& entry) {
    return entry.value == 0 ? rom.size() : entry.index + entry.value;
}

/// The text of a leaf in minimal ASCII, empty for any other: two zero quadlets, then four characters a quadlet.
std::string LeafText(Quadlets rom, std::size_t header) {
    const Quadlets leaf = BlockAt(rom, header);
    if (leaf.size() < 2 || leaf[0] != 0 || leaf[1] != 0) {
        return {};
    }
    std::string text;
    for (const std::uint32_t quadlet : leaf.subspan(2)) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            const auto character = static_cast<char>(static_cast<unsigned char>(quadlet >> shift & 0xFF));
            if (character == '\0') {
                return text.substr(0, text.find_last_not_of(' ') + 1);
            }
            text += character;
        }
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

/// The text that an entry leads to: a leaf, or the first leaf in minimal ASCII of a directory of texts.
std::string TextOf(Quadlets rom, const Entry& entry) {
    const std::size_t target = TargetOf(rom, entry);
    if (entry.key == TextLeaf || entry.key == ModelLeaf) {
        return LeafText(rom, target);
    }
    for (const Entry& inner : EntriesAt(rom, target)) {
        if (inner.key != TextLeaf) {
            continue;
        }
        std::string text = LeafText(rom, TargetOf(rom, inner));
        if (!text.empty()) {
            return text;
        }
    }
    return {};
}

bool IsText(const Entry& entry) { return entry.key == TextLeaf || entry.key == TextDirectory; }
bool IsModelText(const Entry& entry) { return entry.key == ModelLeaf || entry.key == ModelDirectory; }

void ReadUnitDependent(Quadlets rom, std::size_t header, RomUnit* unit) {
    for (const Entry& entry : EntriesAt(rom, header)) {
        if (IsText(entry) && unit->vendor.empty()) {
            unit->vendor = TextOf(rom, entry);
        }
        if (IsModelText(entry) && unit->model.empty()) {
            unit->model = TextOf(rom, entry);
        }
    }
}

RomUnit ReadUnit(Quadlets rom, std::size_t header) {
    RomUnit unit;
    for (const Entry& entry : EntriesAt(rom, header)) {
        if (entry.key == Specifier) {
            unit.specifier = entry.value;
        }
        if (entry.key == Version) {
            unit.version = entry.value;
        }
        if (entry.key == UnitDependent) {
            ReadUnitDependent(rom, TargetOf(rom, entry), &unit);
        }
    }
    return unit;
}

const std::string& FirstNotEmpty(const std::string& a, const std::string& b) { return a.empty() ? b : a; }

}  // namespace

const RomUnit* RomInfo::FindCamera() const {
    const auto found = std::find_if(units.begin(), units.end(), [](const RomUnit& unit) { return unit.IsCamera(); });
    return found == units.end() ? nullptr : &*found;
}

const std::string& RomInfo::GetVendor() const {
    const RomUnit* camera = FindCamera();
    return camera == nullptr ? vendor : FirstNotEmpty(camera->vendor, vendor);
}

const std::string& RomInfo::GetModel() const {
    const RomUnit* camera = FindCamera();
    return camera == nullptr ? model : FirstNotEmpty(camera->model, model);
}

std::optional<RomInfo> ParseConfigRom(std::span<const std::uint32_t> quadlets) {
    const Quadlets rom = quadlets.first(std::min(quadlets.size(), MaxRomQuadlets));
    if (rom.size() < BusInfoQuadlets || rom[1] != BusName) {
        return std::nullopt;
    }
    RomInfo info;
    info.eui64 = std::uint64_t{rom[3]} << 32 | rom[4];
    info.cycleMasterCapable = (rom[2] & CycleMasterCapable) != 0;

    // The root directory stands behind the bus information block of IEEE 1394, whatever length that claims to have.
    std::uint32_t described = 0;  // a text names the entry before it
    for (const Entry& entry : EntriesAt(rom, BusInfoQuadlets)) {
        if (IsText(entry)) {
            if (described == Vendor && info.vendor.empty()) {
                info.vendor = TextOf(rom, entry);
            }
            if (described == Model && info.model.empty()) {
                info.model = TextOf(rom, entry);
            }
            continue;
        }
        described = entry.key;
        if (entry.key == Unit && info.units.size() < MaxUnits) {
            info.units.push_back(ReadUnit(rom, TargetOf(rom, entry)));
        }
    }
    return info;
}

}  // namespace Nimbrel2::Platform::FireWire
