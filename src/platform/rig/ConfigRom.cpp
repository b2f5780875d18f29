// SPDX-License-Identifier: Apache-2.0
// Configuration ROMs of rig nodes. Pure.
#include "platform/rig/ConfigRom.h"

#include <cstddef>
#include <string>

namespace Nimbrel2::Platform {

namespace {

// Keys (IEEE 1212): the two top bits tell immediate, CSR offset, leaf and directory.
constexpr std::uint32_t KeyVendor = 0x03;
constexpr std::uint32_t KeyCapabilities = 0x0C;
constexpr std::uint32_t KeySpecifier = 0x12;
constexpr std::uint32_t KeyVersion = 0x13;
constexpr std::uint32_t KeyCommandRegisters = 0x40;
constexpr std::uint32_t KeyTextLeaf = 0x81;
constexpr std::uint32_t KeyModelLeaf = 0x82;
constexpr std::uint32_t KeyUnit = 0xD1;
constexpr std::uint32_t KeyUnitDependent = 0xD4;

constexpr std::uint32_t IidcSpecifier = 0x00A02D;
constexpr std::uint32_t IidcCommandRegisters = 0x3C0000;  // quadlets from 0xFFFFF0000000

std::uint32_t Entry(std::uint32_t key, std::size_t value) {
    return key << 24 | (static_cast<std::uint32_t>(value) & 0x00FFFFFF);
}

// A textual descriptor leaf in minimal ASCII: two zero quadlets, then four characters a quadlet.
std::vector<std::uint32_t> TextLeaf(const std::string& text) {
    std::vector<std::uint32_t> leaf(3 + (text.size() + 3) / 4);
    for (std::size_t i = 0; i < text.size(); ++i) {
        leaf[3 + i / 4] |= static_cast<std::uint32_t>(static_cast<unsigned char>(text[i])) << (24 - 8 * (i % 4));
    }
    return leaf;
}

// Puts length and checksum into the first quadlet of a directory or leaf.
void Seal(std::vector<std::uint32_t>* block) {
    const std::size_t length = block->size() - 1;
    (*block)[0] = static_cast<std::uint32_t>(length) << 16 | ConfigRomCrc(block->data() + 1, length);
}

void Append(std::vector<std::uint32_t>* rom, std::vector<std::uint32_t> block) {
    Seal(&block);
    rom->insert(rom->end(), block.begin(), block.end());
}

}  // namespace

std::uint16_t ConfigRomCrc(const std::uint32_t* quadlets, std::size_t count) {
    std::uint32_t crc = 0;
    for (std::size_t i = 0; i < count; ++i) {
        for (int shift = 28; shift >= 0; shift -= 4) {
            const std::uint32_t sum = ((crc >> 12) ^ (quadlets[i] >> shift)) & 0xF;
            crc = (crc << 4) ^ (sum << 12) ^ (sum << 5) ^ sum;
        }
        crc &= 0xFFFF;
    }
    return static_cast<std::uint16_t>(crc);
}

std::vector<std::uint32_t> BuildConfigRom(const PhyDescription& phy) {
    if (phy.kind == PhyKind::Repeater) {
        return {};
    }
    const auto high = static_cast<std::uint32_t>(phy.eui64 >> 32);
    std::vector<std::uint32_t> rom = {0, 0x31333934, 0xE000A002, high, static_cast<std::uint32_t>(phy.eui64)};
    rom[0] = 0x04040000 | ConfigRomCrc(rom.data() + 1, 4);

    if (phy.kind != PhyKind::Camera) {
        // Root directory: vendor, its text, capabilities. The text leaf follows at once.
        Append(&rom, {0, Entry(KeyVendor, high >> 8), Entry(KeyTextLeaf, 2), Entry(KeyCapabilities, 0x0083C0)});
        Append(&rom, TextLeaf(phy.vendor));
        return rom;
    }
    const std::vector<std::uint32_t> vendor = TextLeaf(phy.vendor);
    // Root directory (4 quadlets), unit directory (4), unit dependent directory (4), vendor leaf, model leaf. An entry
    // points as many quadlets ahead as its value says.
    Append(&rom, {0, Entry(KeyVendor, high >> 8), Entry(KeyCapabilities, 0x0083C0), Entry(KeyUnit, 1)});
    Append(&rom,
           {0, Entry(KeySpecifier, IidcSpecifier), Entry(KeyVersion, phy.unitVersion), Entry(KeyUnitDependent, 1)});
    Append(&rom, {0, Entry(KeyCommandRegisters, IidcCommandRegisters), Entry(KeyTextLeaf, 2),
                  Entry(KeyModelLeaf, 1 + vendor.size())});
    Append(&rom, vendor);
    Append(&rom, TextLeaf(phy.model));
    return rom;
}

}  // namespace Nimbrel2::Platform
