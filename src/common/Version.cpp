// SPDX-License-Identifier: Apache-2.0
// The version that this library was built as. Any thread; no lock.
#include "common/Version.h"

namespace Nimbrel2 {

#define NIMBREL2_TEXT_OF(number) #number
#define NIMBREL2_DOTTED(major, minor, patch) \
    NIMBREL2_TEXT_OF(major) "." NIMBREL2_TEXT_OF(minor) "." NIMBREL2_TEXT_OF(patch)

Version GetVersion() noexcept { return {NIMBREL2_VERSION_MAJOR, NIMBREL2_VERSION_MINOR, NIMBREL2_VERSION_PATCH}; }

const char* GetVersionText() noexcept {
    return NIMBREL2_DOTTED(NIMBREL2_VERSION_MAJOR, NIMBREL2_VERSION_MINOR, NIMBREL2_VERSION_PATCH);
}

}  // namespace Nimbrel2
