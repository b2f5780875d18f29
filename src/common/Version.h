// SPDX-License-Identifier: Apache-2.0
// The version of the headers, and of the library that the program runs with. The build reads it from here.
// Before 1.0 another minor version may be another interface: it has another SONAME.
#ifndef NIMBREL2_COMMON_VERSION_H
#define NIMBREL2_COMMON_VERSION_H

#include "hal/Export.h"

#define NIMBREL2_VERSION_MAJOR 0
#define NIMBREL2_VERSION_MINOR 1
#define NIMBREL2_VERSION_PATCH 0
/// For comparisons by the preprocessor: NIMBREL2_VERSION_NUMBER >= 200 is 0.2.0 or later.
#define NIMBREL2_VERSION_NUMBER (NIMBREL2_VERSION_MAJOR * 10000 + NIMBREL2_VERSION_MINOR * 100 + NIMBREL2_VERSION_PATCH)

namespace Nimbrel2 {

struct Version {
    unsigned int major;
    unsigned int minor;
    unsigned int patch;
};

/// The version of the library that is loaded; the macros tell that of the headers.
/// @par Threads  Any, always.
NIMBREL2_API Version GetVersion() noexcept;

/// The same as text, "0.1.0". Never freed.
NIMBREL2_API const char* GetVersionText() noexcept;

}  // namespace Nimbrel2

#endif
