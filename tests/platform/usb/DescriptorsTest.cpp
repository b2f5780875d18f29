// SPDX-License-Identifier: Apache-2.0
// USB descriptors from bytes, whole, cut at every byte, and with lengths that make no sense.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/usb/Descriptors.h"

namespace Nimbrel2::Platform::Usb {
namespace {

using Bytes = std::vector<std::uint8_t>;
using testing::IsNull;
using testing::NotNull;

const Bytes TestDevice{
    0x12, 0x01,        // length, device
    0x00, 0x03,        // USB 3.00
    0xEF, 0x02, 0x01,  // interface associations
    0x09, 0x09, 0x12,  // packet size, vendor 1209
    0x01, 0x00,        // product 0001
    0x00, 0x01,        // version
    0x01, 0x02, 0x03,  // texts: manufacturer, product, serial
    0x01               // configurations
};
const Bytes TestConfiguration{0x09, 0x02, 0x43, 0x00, 0x02, 0x01, 0x00, 0x80, 0x70};
const Bytes Association{0x08, 0x0B, 0x00, 0x02, 0xEF, 0x05, 0x00, 0x00};
const Bytes TestControl{0x09, 0x04, 0x00, 0x00, 0x02, 0xEF, 0x05, 0x00, 0x00};
const Bytes TestVisionInfo{
    0x14, 0x24, 0x01,        // length, class interface, device information
    0x02, 0x00, 0x01, 0x00,  // GenCP 1.2
    0x01, 0x00, 0x01, 0x00,  // USB3 Vision 1.1
    0x04, 0x01, 0x02, 0x07,  // texts: guid, vendor, model, family
    0x05, 0x06, 0x03, 0x00,  // version, maker's information, serial, name
    0x0C                     // high speed and SuperSpeed
};
const Bytes TestBulkIn{0x07, 0x05, 0x81, 0x02, 0x00, 0x04, 0x00};
const Bytes Companion{0x06, 0x30, 0x00, 0x00, 0x00, 0x00};
const Bytes TestBulkOut{0x07, 0x05, 0x01, 0x02, 0x00, 0x04, 0x00};
const Bytes TestEvents{0x09, 0x04, 0x01, 0x00, 0x01, 0xEF, 0x05, 0x01, 0x00};
const Bytes EventsIn{0x07, 0x05, 0x82, 0x02, 0x00, 0x04, 0x00};

Bytes Join(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes Camera() {
    return Join({TestDevice, TestConfiguration, Association, TestControl, TestVisionInfo, TestBulkIn, Companion,
                 TestBulkOut, Companion, TestEvents, EventsIn, Companion});
}

TEST(UsbDescriptors, OfACameraTellWhatItIsAndHowItsRegistersAreReached) {
    const auto descriptors = ParseDescriptors(Camera());
    ASSERT_TRUE(descriptors);
    EXPECT_EQ(descriptors->usbVersion, 0x0300);
    EXPECT_EQ(descriptors->deviceClass, 0xEF);
    EXPECT_EQ(descriptors->deviceProtocol, 0x01);
    EXPECT_EQ(descriptors->vendorId, 0x1209);
    EXPECT_EQ(descriptors->productId, 0x0001);
    EXPECT_EQ(descriptors->manufacturerIndex, 1);
    EXPECT_EQ(descriptors->productIndex, 2);
    EXPECT_EQ(descriptors->serialIndex, 3);
    EXPECT_FALSE(descriptors->IsHub());
    ASSERT_EQ(descriptors->configurations.size(), 1u);
    EXPECT_EQ(descriptors->configurations[0].interfaces.size(), 2u);

    const InterfaceDescriptor* control = descriptors->FindVisionControl(1);
    ASSERT_THAT(control, NotNull());
    EXPECT_EQ(control->number, 0);
    EXPECT_EQ(control->bulkIn, 0x81);
    EXPECT_EQ(control->bulkOut, 0x01);
    ASSERT_TRUE(control->vision);
    EXPECT_EQ(*control->vision, (VisionInfo{0x00010002, 0x00010001, 4, 1, 2, 3, 0x0C}));
    EXPECT_THAT(descriptors->FindVisionControl(0), NotNull()) << "while it is not configured";
    EXPECT_THAT(descriptors->FindVisionControl(2), IsNull());
}

TEST(UsbDescriptors, CutAtAnyByteHoldNothingThatIsNotThere) {
    const Bytes whole = Camera();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        // A block of exactly that size, so that the sanitizers see a read past its end.
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        const auto descriptors = ParseDescriptors(cut);
        ASSERT_EQ(descriptors.has_value(), size >= TestDevice.size()) << size;
        if (!descriptors) {
            continue;
        }
        EXPECT_EQ(descriptors->productId, 0x0001) << size;
        const InterfaceDescriptor* control = descriptors->FindVisionControl(0);
        EXPECT_EQ(control != nullptr, size >= Join({TestDevice, TestConfiguration, Association, TestControl}).size())
            << size;
        if (control == nullptr) {
            continue;
        }
        EXPECT_TRUE(!control->vision || control->vision->speeds == 0x0C) << size << ": it is read whole or not at all";
        EXPECT_TRUE(control->bulkIn == 0 || control->bulkIn == 0x81) << size;
    }
}

TEST(UsbDescriptors, WithEachByteInTurnAtItsExtremesEndWithoutHarm) {
    Bytes bytes = Camera();
    for (std::uint8_t& byte : bytes) {
        const std::uint8_t before = byte;
        for (const int value : {0, 1, 2, 0x7F, 0x80, 0xFE, 0xFF}) {
            byte = static_cast<std::uint8_t>(value);
            const auto descriptors = ParseDescriptors(bytes);
            if (!descriptors) {
                continue;
            }
            EXPECT_LE(descriptors->configurations.size(), bytes.size() / 9);
        }
        byte = before;
    }
}

TEST(UsbDescriptors, AreReadAsFarAsTheyAreThereWhateverTheTotalLengthSays) {
    Bytes configuration = TestConfiguration;
    configuration[2] = 0xFF;  // wTotalLength
    configuration[3] = 0xFF;
    const auto descriptors =
        ParseDescriptors(Join({TestDevice, configuration, TestControl, TestVisionInfo, TestBulkIn, TestBulkOut}));
    ASSERT_TRUE(descriptors);
    EXPECT_THAT(descriptors->FindVisionControl(1), NotNull());
}

TEST(UsbDescriptors, EndWhereALengthMakesNoSense) {
    const auto descriptors =
        ParseDescriptors(Join({TestDevice, TestConfiguration, TestControl, {0xC8, 0x24, 0x01}, TestBulkIn}));
    ASSERT_TRUE(descriptors);
    const InterfaceDescriptor* control = descriptors->FindVisionControl(1);
    ASSERT_THAT(control, NotNull());
    EXPECT_FALSE(control->vision);
    EXPECT_EQ(control->bulkIn, 0);
}

TEST(UsbDescriptors, WithAShortVisionInformationHaveZeroForWhatIsMissing) {
    for (std::uint8_t length = 3; length < 20; ++length) {
        Bytes info(TestVisionInfo.begin(), TestVisionInfo.begin() + length);
        info[0] = length;
        const auto descriptors = ParseDescriptors(Join({TestDevice, TestConfiguration, TestControl, info, TestBulkIn}));
        const InterfaceDescriptor* control = descriptors->FindVisionControl(1);
        ASSERT_TRUE(control != nullptr && control->vision) << int{length};
        EXPECT_EQ(control->vision->genCpVersion, length < 7 ? 0u : 0x00010002u) << int{length};
        EXPECT_EQ(control->vision->modelIndex, length < 14 ? 0 : 2) << int{length};
        EXPECT_EQ(control->vision->serialIndex, length < 18 ? 0 : 3) << int{length};
        EXPECT_EQ(control->vision->speeds, 0) << int{length};
    }
}

struct NotADevice : testing::TestWithParam<std::pair<const char*, Bytes>> {};
TEST_P(NotADevice, HasNoDescriptors) { EXPECT_FALSE(ParseDescriptors(GetParam().second)); }
INSTANTIATE_TEST_SUITE_P(UsbDescriptors, NotADevice,
                         testing::Values(std::pair{"Empty", Bytes{}}, std::pair{"ZeroLength", Bytes(18, 0)},
                                         std::pair{"AConfigurationFirst", Join({TestConfiguration, TestDevice})},
                                         std::pair{"ADeviceThatSaysItIsShort",
                                                   Join({{0x08, 0x01, 0, 3, 0xEF, 2, 1, 9}, TestDevice})}),
                         [](const auto& instance) { return instance.param.first; });

TEST(UsbDescriptors, OfTwoConfigurationsAreLookedAtInTheOneThatIsChosen) {
    Bytes second = TestConfiguration;
    second[5] = 2;
    Bytes other = TestControl;
    other[5] = 0x08;  // mass storage
    const auto descriptors =
        ParseDescriptors(Join({TestDevice, TestConfiguration, other, second, TestControl, TestBulkIn}));
    EXPECT_THAT(descriptors->FindVisionControl(1), IsNull());
    EXPECT_THAT(descriptors->FindVisionControl(2), NotNull());
    EXPECT_THAT(descriptors->FindVisionControl(0), NotNull());
}

TEST(UsbDescriptors, OfAnotherSettingOfAnInterfaceChangeNothing) {
    Bytes setting = TestControl;
    setting[3] = 1;
    const Bytes otherIn{0x07, 0x05, 0x8F, 0x02, 0x00, 0x04, 0x00};
    const auto descriptors =
        ParseDescriptors(Join({TestDevice, TestConfiguration, TestControl, TestBulkIn, TestBulkOut, setting, otherIn}));
    ASSERT_EQ(descriptors->configurations[0].interfaces.size(), 1u);
    EXPECT_EQ(descriptors->FindVisionControl(1)->bulkIn, 0x81);
}

TEST(UsbDescriptors, TakeBulkEndpointsOnlyAndClassDescriptorsOnlyOfControlInterfaces) {
    const Bytes interruptIn{0x07, 0x05, 0x83, 0x03, 0x08, 0x00, 0x04};
    const auto descriptors = ParseDescriptors(
        Join({TestDevice, TestConfiguration, TestControl, interruptIn, TestBulkIn, TestEvents, TestVisionInfo}));
    const InterfaceDescriptor* control = descriptors->FindVisionControl(1);
    EXPECT_EQ(control->bulkIn, 0x81);
    EXPECT_FALSE(control->vision);
    EXPECT_FALSE(descriptors->configurations[0].interfaces[1].vision);
}

// ---- What a device is called ---------------------------------------------------------------------------------------

struct Texts : testing::Test {
    Descriptors descriptors = *ParseDescriptors(Camera());
    VisionInfo info = *descriptors.FindVisionControl(1)->vision;
    const DeviceTexts kernel{"Maker", "Product", "Serial"};

    std::string Choose() {
        const ShownTexts shown = ChooseTexts(descriptors, &info, kernel);
        return shown.vendor + ", " + shown.model + ", " + shown.serial;
    }
};

TEST_F(Texts, AreTheKernelsWhenTheIndexesAgree) { EXPECT_EQ(Choose(), "Maker, Product, Serial"); }

TEST_F(Texts, FollowTheVisionInformationToAnotherTextThatIsKnown) {
    info.vendorIndex = 2;
    info.modelIndex = 3;
    info.serialIndex = 1;
    EXPECT_EQ(Choose(), "Product, Serial, Maker");
}

TEST_F(Texts, AreTheDevicesWhereTheVisionInformationNamesNoneOrOneThatOnlyTheDeviceKnows) {
    info.vendorIndex = 9;
    info.modelIndex = 0;
    EXPECT_EQ(Choose(), "Maker, Product, Serial");
}

TEST_F(Texts, ThatAreMissingAreShownAsIdsButForTheSerialText) {
    const ShownTexts shown = ChooseTexts(descriptors, nullptr, {});
    EXPECT_EQ(shown.vendor, "1209");
    EXPECT_EQ(shown.model, "0001");
    EXPECT_EQ(shown.serial, "");
}

TEST(FastestSpeed, IsWhatTheVisionInformationSaysElseWhatTheUsbVersionDoes) {
    Descriptors descriptors;
    VisionInfo info;
    info.speeds = 0x0C;
    EXPECT_EQ(FastestSpeedOf(descriptors, &info), 5000u);
    info.speeds = 0x04;
    descriptors.usbVersion = 0x0300;
    EXPECT_EQ(FastestSpeedOf(descriptors, &info), 480u);
    info.speeds = 0;
    for (const auto& [version, speed] : {std::pair{0x0320, 5000u}, std::pair{0x0300, 5000u}, std::pair{0x0210, 0u},
                                         std::pair{0x0200, 480u}, std::pair{0x0110, 12u}}) {
        descriptors.usbVersion = static_cast<std::uint16_t>(version);
        EXPECT_EQ(FastestSpeedOf(descriptors, &info), speed) << version;
        EXPECT_EQ(FastestSpeedOf(descriptors, nullptr), speed) << version;
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform::Usb
