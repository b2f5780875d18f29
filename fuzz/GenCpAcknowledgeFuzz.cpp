// SPDX-License-Identifier: Apache-2.0
// Acknowledges of a USB3 Vision camera, or of what says it is one: what is read was there, and its lengths agree.
#include "fuzz/Require.h"
#include "platform/linux/usb/GenCp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform::Usb;
    const auto acknowledge = GenCp::DecodeAcknowledge({data, size});
    if (!acknowledge) {
        return 0;
    }
    NIMBREL2_REQUIRE(size >= GenCp::HeaderBytes);
    NIMBREL2_REQUIRE(acknowledge->payload.size() == size - GenCp::HeaderBytes);
    NIMBREL2_REQUIRE(acknowledge->payload.empty() || acknowledge->payload.data() == data + GenCp::HeaderBytes);
    NIMBREL2_REQUIRE(GenCp::DecodeQuadlet(*acknowledge).has_value() == (acknowledge->payload.size() == 4));
    NIMBREL2_REQUIRE(GenCp::DecodePending(*acknowledge).has_value() == (acknowledge->payload.size() == 4));
    GenCp::HasWrittenQuadlet(*acknowledge);
    NIMBREL2_REQUIRE((GenCp::ToHalStatus(acknowledge->status) == 0) == (acknowledge->status == 0));
    return 0;
}
