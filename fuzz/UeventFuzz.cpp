// SPDX-License-Identifier: Apache-2.0
// Uevents as the kernel, udevd or nobody sends them: what is read lies in the message and is whole.
#include "fuzz/Require.h"
#include "platform/base/Uevents.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto event = Nimbrel2::Platform::ParseUevent({data, size});
    if (!event) {
        return 0;
    }
    const auto* begin = reinterpret_cast<const char*>(data);
    for (const std::string_view text : {event->action, event->devicePath, event->subsystem, event->properties}) {
        NIMBREL2_REQUIRE(!text.empty());
        NIMBREL2_REQUIRE(text.data() >= begin && text.data() + text.size() <= begin + size);
    }
    NIMBREL2_REQUIRE(event->action.find('\0') == std::string_view::npos);
    NIMBREL2_REQUIRE(event->Find("ACTION") == event->action);
    NIMBREL2_REQUIRE(event->Find("SUBSYSTEM").data() == event->subsystem.data());
    return 0;
}
