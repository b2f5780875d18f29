// SPDX-License-Identifier: Apache-2.0
// What an errno means to whoever calls the HAL. Pure; any thread.
#ifndef NIMBREL2_PLATFORM_BASE_ERRNO_H
#define NIMBREL2_PLATFORM_BASE_ERRNO_H

#include <cstdint>

namespace Nimbrel2::Platform {

/// The HALStatus that stands for an errno; HAL_OK for 0, HAL_FAILED for one that says nothing to a caller.
std::uint32_t StatusOfErrno(int error);

/// This computer or process is short of memory or descriptors: nothing was learnt of what was asked, and it must not
/// count as gone.
bool IsShortage(int error);

}  // namespace Nimbrel2::Platform

#endif
