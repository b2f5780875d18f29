// SPDX-License-Identifier: Apache-2.0
// The small records: identifiers, addresses, handles as they are made.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include "common/BusMasterHandle.h"
#include "common/IPAddress.h"
#include "common/InterfaceType.h"
#include "common/MACAddress.h"

namespace Nimbrel2 {
namespace {

TEST(InterfaceType, KeepsItsNumbers) {
    EXPECT_EQ(0U, INTERFACE_IEEE1394);
    EXPECT_EQ(1U, INTERFACE_USB_2);
    EXPECT_EQ(2U, INTERFACE_USB_3);
    EXPECT_EQ(3U, INTERFACE_GIGE);
    EXPECT_EQ(4U, INTERFACE_NONE);
}

TEST(ZevoGuid, IsAllZeroUntilItIsMade) {
    const ZevoGuid guid;
    EXPECT_EQ((ZevoGuid{{0, 0, 0, 0}}), guid);
}

TEST(ZevoGuid, IsEqualOnlyWhenAllFourWordsAre) {
    const ZevoGuid guid{{1, 2, 3, 4}};
    EXPECT_TRUE(guid == (ZevoGuid{{1, 2, 3, 4}}));
    for (int word = 0; word < 4; ++word) {
        ZevoGuid other = guid;
        ++other.value[word];
        EXPECT_FALSE(guid == other) << "word " << word;
        EXPECT_TRUE(guid != other) << "word " << word;
    }
    EXPECT_FALSE(guid != (ZevoGuid{{1, 2, 3, 4}}));
}

TEST(ZevoGuid, HasAPlaceOfItsOwnInAnOrder) {
    const ZevoGuid guid{{1, 2, 3, 4}};
    EXPECT_FALSE(guid < guid);
    for (int word = 0; word < 4; ++word) {
        ZevoGuid other = guid;
        ++other.value[word];
        EXPECT_TRUE(guid < other) << "word " << word;
        EXPECT_FALSE(other < guid) << "word " << word;
    }
    EXPECT_TRUE((ZevoGuid{{1, 9, 9, 9}}) < (ZevoGuid{{2, 0, 0, 0}}));
}

TEST(BusMasterHandle, StartsEmpty) {
    const BusMasterHandle handle;
    EXPECT_EQ(0U, handle.serialNumber);
    EXPECT_EQ(ZevoGuid(), handle.guid);
    EXPECT_FALSE(handle.hwInterface);
}

TEST(IPAddress, PutsTheFirstOctetIntoTheMostSignificantByte) {
    EXPECT_EQ(0xC0A8000AU, PackIPAddress(IPAddress{{192, 168, 0, 10}}));
    const IPAddress address = UnpackIPAddress(0xC0A8000A);
    EXPECT_EQ(0, std::memcmp(address.octets, "\xC0\xA8\x00\x0A", 4));
    EXPECT_EQ(0xFFFFFFFFU, PackIPAddress(UnpackIPAddress(0xFFFFFFFF)));
}

TEST(Addresses, AreZeroUntilTheyAreSet) {
    EXPECT_EQ(0U, PackIPAddress(IPAddress()));
    const MACAddress mac;
    EXPECT_EQ(0, std::memcmp(mac.octets, "\0\0\0\0\0\0", 6));
}

// Where a virtual operation stands in the table of its class, as the C++ ABI of Linux keeps it in a member pointer.
template <class Operation>
std::uintptr_t Slot(Operation operation) {
    static_assert(sizeof operation >= sizeof(std::uintptr_t));
    std::uintptr_t word = 0;
    std::memcpy(&word, &operation, sizeof word);
    return (word & ~std::uintptr_t{1}) / sizeof(void*);
}

// Interface classes are built apart from the bus master, so the places of their operations must not move.
TEST(HardwareInterface, KeepsItsVirtualOperationsInOrderBehindTheDestructors) {
    const std::vector<std::uintptr_t> slots{
        Slot(&HardwareInterface::ReleaseCamera),    Slot(&HardwareInterface::ReleaseDevice),
        Slot(&HardwareInterface::GetConfigInfo),    Slot(&HardwareInterface::GetSelfIds),
        Slot(&HardwareInterface::GetUsbSelfIds),    Slot(&HardwareInterface::GetNodeSerialNumbers),
        Slot(&HardwareInterface::GetDeviceInfo),    Slot(&HardwareInterface::WriteRegister),
        Slot(&HardwareInterface::ReadRegister),     Slot(&HardwareInterface::ReadPhyRegister),
        Slot(&HardwareInterface::WritePhyRegister), Slot(&HardwareInterface::GetInterfaceType),
        Slot(&HardwareInterface::FireBusReset)};
    EXPECT_TRUE(std::is_sorted(slots.begin(), slots.end()));
    EXPECT_EQ(slots.end(), std::adjacent_find(slots.begin(), slots.end()));
    EXPECT_EQ(2U, slots[0]);  // two destructors stand before it
    EXPECT_TRUE(std::has_virtual_destructor_v<HardwareInterface>);
    EXPECT_TRUE(std::is_abstract_v<HardwareInterface>);
}

}  // namespace
}  // namespace Nimbrel2
