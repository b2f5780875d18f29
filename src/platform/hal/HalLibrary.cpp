// SPDX-License-Identifier: Apache-2.0
// HAL_InitLibrary and HAL_CleanupLibrary. Run on their caller's thread, with no lock held while drivers start and stop.
#include <system_error>

#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

uint32_t HAL_InitLibrary(void) {
    return Guarded([]() -> std::uint32_t {
        try {
            return Process::Get().Start();
        } catch (const std::system_error&) {
            return HAL_OUT_OF_MEMORY;  // no thread, no file descriptor
        }
    });
}

uint32_t HAL_CleanupLibrary(void) {
    return Guarded([] { return Process::Get().Stop(); });
}
