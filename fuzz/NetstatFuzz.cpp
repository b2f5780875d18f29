// SPDX-License-Identifier: Apache-2.0
// The kernel's counters: a name that is not there has none, whatever else is.
#include <string>

#include "fuzz/Require.h"
#include "platform/base/Netstat.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* const name = "IPReversePathFilter";
    const auto count = Nimbrel2::Platform::ParseNetstat(text, name);
    NIMBREL2_REQUIRE(!count || text.find(name) != std::string::npos);
    return 0;
}
