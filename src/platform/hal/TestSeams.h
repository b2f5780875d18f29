// SPDX-License-Identifier: Apache-2.0
// What tests may put in place of the platform's drivers and threads. Internal: not installed.
#ifndef NIMBREL2_PLATFORM_HAL_TESTSEAMS_H
#define NIMBREL2_PLATFORM_HAL_TESTSEAMS_H

#include <cstdint>

#include "platform/hal/DriverFactory.h"
#include "platform/hal/StartThread.h"

namespace Nimbrel2::Platform {

/// The drivers of the next HAL_InitLibrary and all later ones; an empty factory brings the real ones back.
/// @return HAL_BUSY while the HAL is running.
std::uint32_t InstallDriversForTest(DriverFactory factory);

/// How delivery threads are started from the next HAL_InitLibrary on; an empty starter brings the real one back.
/// @return HAL_BUSY while the HAL is running.
std::uint32_t InstallThreadStarterForTest(ThreadStarter starter);

}  // namespace Nimbrel2::Platform

#endif
