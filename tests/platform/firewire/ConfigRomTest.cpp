// SPDX-License-Identifier: Apache-2.0
// What is read from configuration ROMs, good and bad ones.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/firewire/ConfigRom.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

using Quadlets = std::vector<std::uint32_t>;

/// A camera as most are: its names are in the unit dependent directory, the maker's also in the root directory.
Quadlets CameraRom() {
    return {
        0x0404A5A5, 0x31333934, 0xE000A002, 0x00118800, 0x00031001,  // 0: bus information block
        0x0004A5A5, 0x03001188, 0x8100000B, 0x0C0083C0, 0xD1000001,  // 5: root: vendor, its text, capabilities, unit
        0x0003A5A5, 0x1200A02D, 0x13000102, 0xD4000001,              // 10: unit: IIDC 1.30
        0x0003A5A5, 0x403C0000, 0x81000002, 0x82000006,              // 14: its names
        0x0004A5A5, 0x00000000, 0x00000000, 0x41636D65, 0x20200000,  // 18: "Acme  "
        0x0004A5A5, 0x00000000, 0x00000000, 0x5A6F6F6D, 0x20313339,  // 23: "Zoom 139", without a zero at its end
    };
}

RomInfo Parse(const Quadlets& rom) {
    const auto info = ParseConfigRom(rom);
    EXPECT_TRUE(info);
    return info.value_or(RomInfo{});
}

TEST(ConfigRom, OfACameraTellsIdentityAndTheTextsOfItsOwnLeaves) {
    Quadlets rom = CameraRom();
    rom[7] = 0x0C0083C0;  // no vendor text in the root directory
    const RomInfo info = Parse(rom);
    EXPECT_EQ(info.eui64, 0x0011880000031001u);
    EXPECT_TRUE(info.cycleMasterCapable);
    ASSERT_NE(info.FindCamera(), nullptr);
    EXPECT_EQ(info.FindCamera()->version, 0x000102u);
    EXPECT_EQ(info.GetVendor(), "Acme");
    EXPECT_EQ(info.GetModel(), "Zoom 139");
}

TEST(ConfigRom, TextsOfTheRootDirectoryServeACameraThatHasNoneOfItsOwn) {
    Quadlets rom = CameraRom();
    rom[16] = rom[17] = 0x38000030;  // no names in the unit dependent directory
    rom[7] = 0x8100000B;             // root: vendor text at 18
    rom[8] = 0x17000001;             // model id
    rom[9] = 0x8100000E;             // its text at 23
    rom[5] = 0x0005A5A5;
    rom.insert(rom.begin() + 10, 0xD1000001);
    for (const std::size_t moved : {7u, 9u}) {
        ++rom[moved];  // the leaves are one quadlet further away now
    }
    const RomInfo info = Parse(rom);
    ASSERT_NE(info.FindCamera(), nullptr);
    EXPECT_EQ(info.GetVendor(), "Acme");
    EXPECT_EQ(info.GetModel(), "Zoom 139");
}

TEST(ConfigRom, IsACamerasByVersionAndNotBySpecifierAlone) {
    struct Case {
        const char* what;
        std::uint32_t specifier;
        std::uint32_t version;
        bool camera;
    };
    const std::vector<Case> cases{
        {"IIDC 1.04", 0x00A02D, 0x000100, true},
        {"IIDC 1.20", 0x00A02D, 0x000101, true},
        {"IIDC 1.30", 0x00A02D, 0x000102, true},
        {"IIDC2", 0x00A02D, 0x000110, false},
        {"AV/C", 0x00A02D, 0x010001, false},
        {"vendor unique", 0x00A02D, 0x014000, false},
        {"a disk", 0x00609E, 0x010483, false},
        {"version alone", 0x00609E, 0x000102, false},
        {"before the first", 0x00A02D, 0x0000FF, false},
    };
    for (const Case& one : cases) {
        Quadlets rom = CameraRom();
        rom[11] = 0x12000000 | one.specifier;
        rom[12] = 0x13000000 | one.version;
        const RomInfo info = Parse(rom);
        EXPECT_EQ(info.FindCamera() != nullptr, one.camera) << one.what;
        ASSERT_EQ(info.units.size(), 1u) << one.what;
        EXPECT_EQ(info.units[0].specifier, one.specifier) << one.what;
        EXPECT_EQ(info.units[0].version, one.version) << one.what;
    }
}

TEST(ConfigRom, WithSeveralUnitsIsACamerasWhenAnyOfThemIs) {
    Quadlets rom = CameraRom();
    // Two unit directories: an AV/C unit at the end, and the camera.
    rom[8] = 0xD1000000 | static_cast<std::uint32_t>(rom.size() - 8);
    rom.insert(rom.end(), {0x0002A5A5, 0x1200A02D, 0x13010001});
    const RomInfo info = Parse(rom);
    ASSERT_EQ(info.units.size(), 2u);
    EXPECT_FALSE(info.units[0].IsCamera());
    ASSERT_NE(info.FindCamera(), nullptr);
    EXPECT_EQ(info.FindCamera(), &info.units[1]);
}

TEST(ConfigRom, TextMayStandInADirectoryOfSeveral) {
    Quadlets rom = CameraRom();
    rom[17] = 0xC2000000 | static_cast<std::uint32_t>(rom.size() - 17);
    rom.insert(rom.end(), {0x0002A5A5, 0x81000002, 0x81000005});              // two texts
    rom.insert(rom.end(), {0x0003A5A5, 0x00000000, 0x04000011, 0x58585858});  // in another language
    rom.insert(rom.end(), {0x0003A5A5, 0x00000000, 0x00000000, 0x5A350000});  // "Z5"
    EXPECT_EQ(Parse(rom).GetModel(), "Z5");
}

TEST(ConfigRom, WithoutBusInformationBlockIsNone) {
    const Quadlets good = CameraRom();
    for (std::size_t size = 0; size < 5; ++size) {
        EXPECT_FALSE(ParseConfigRom(Quadlets(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)))) << size;
    }
    Quadlets otherBus = good;
    otherBus[1] = 0x31333935;
    EXPECT_FALSE(ParseConfigRom(otherBus));
}

TEST(ConfigRom, CutAnywhereTellsWhatIsLeft) {
    const Quadlets good = CameraRom();
    for (std::size_t size = 5; size < good.size(); ++size) {
        // A block of its own, so that a sanitizer sees a read behind it.
        const Quadlets cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(Parse(cut).eui64, 0x0011880000031001u) << size;
        // Specifier and version are the quadlets 11 and 12.
        EXPECT_EQ(Parse(cut).FindCamera() != nullptr, size > 12) << size;
    }
    EXPECT_EQ(Parse(Quadlets(good.begin(), good.begin() + 27)).GetModel(), "Zoom");
}

TEST(ConfigRom, ThatLeadsNowhereTellsNothingThere) {
    struct Case {
        const char* why;
        std::size_t index;
        std::uint32_t quadlet;
        const char* vendor;
        const char* model;
        bool camera = true;
    };
    const std::vector<Case> cases{
        {"a model text behind the end", 17, 0x82000FFF, "Acme", ""},
        {"a model text at itself", 17, 0x82000000, "Acme", ""},
        {"a model text in another character set", 25, 0x00000001, "Acme", ""},
        {"a model text of another specifier", 24, 0x00123456, "Acme", ""},
        {"a model leaf without room for a text", 23, 0x0001A5A5, "Acme", ""},
        {"a model leaf that claims more than there is", 23, 0xFFFFA5A5, "Acme", "Zoom 139"},
        {"an empty unit dependent directory", 14, 0x0000A5A5, "", ""},
        {"a unit directory at itself", 9, 0xD1000000, "", "", false},
        {"a unit directory behind the end", 9, 0xD1FFFFFF, "", "", false},
        {"an empty root directory", 5, 0x0000A5A5, "", "", false},
        {"a root directory that claims more than there is", 5, 0xFFFFA5A5, "Acme", "Zoom 139"},
        {"a unit dependent directory at itself", 13, 0xD4000000, "", ""},
    };
    for (const Case& bad : cases) {
        Quadlets rom = CameraRom();
        rom[7] = 0x0C0083C0;  // no vendor text in the root directory
        rom[bad.index] = bad.quadlet;
        const RomInfo info = Parse(rom);
        EXPECT_EQ(info.FindCamera() != nullptr, bad.camera) << bad.why;
        EXPECT_EQ(info.GetVendor(), bad.vendor) << bad.why;
        EXPECT_EQ(info.GetModel(), bad.model) << bad.why;
    }
}

TEST(ConfigRom, FullOfUnitsEnds) {
    Quadlets rom(MaxRomQuadlets + 40, 0xD1000001);
    const Quadlets head = CameraRom();
    std::copy(head.begin(), head.begin() + 5, rom.begin());
    rom[5] = 0xFFFF0000;
    EXPECT_EQ(Parse(rom).units.size(), 16u);
}

TEST(ConfigRom, TextKeepsOctetsOfEveryValue) {
    Quadlets rom = CameraRom();
    rom[26] = 0xC3A97F01;
    rom[27] = 0;
    EXPECT_EQ(Parse(rom).GetModel(), "\xC3\xA9\x7F\x01");
}

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
