// SPDX-License-Identifier: Apache-2.0
// USB descriptors as a device tells them, or does not: reading ends, and what is read was there.
#include <algorithm>

#include "fuzz/Require.h"
#include "platform/linux/usb/Descriptors.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform::Usb;
    const auto descriptors = ParseDescriptors({data, size});
    NIMBREL2_REQUIRE(!descriptors || size >= 18);
    if (!descriptors) {
        return 0;
    }
    std::size_t least = 18;
    for (const Configuration& configuration : descriptors->configurations) {
        least += 9 + 9 * configuration.interfaces.size();
        NIMBREL2_REQUIRE(configuration.interfaces.size() <= 256);
        for (const InterfaceDescriptor& interface : configuration.interfaces) {
            NIMBREL2_REQUIRE(!interface.vision || interface.IsVisionControl());
            NIMBREL2_REQUIRE(interface.bulkIn == 0 || (interface.bulkIn & 0x80) != 0);
            NIMBREL2_REQUIRE((interface.bulkOut & 0x80) == 0);
        }
    }
    NIMBREL2_REQUIRE(least <= size);
    const InterfaceDescriptor* control = descriptors->FindVisionControl(0);
    const VisionInfo* info = control != nullptr && control->vision ? &*control->vision : nullptr;
    const ShownTexts texts = ChooseTexts(*descriptors, info, {"maker", "product", ""});
    NIMBREL2_REQUIRE(!texts.vendor.empty() && !texts.model.empty());
    const std::uint32_t speed = FastestSpeedOf(*descriptors, info);
    NIMBREL2_REQUIRE(speed == 0 || speed == 12 || speed == 480 || speed == 5000);
    return 0;
}
