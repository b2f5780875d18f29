// SPDX-License-Identifier: Apache-2.0
// Makes the driver of each bus as the options choose it. DriverFactory.cpp is the only file of the glue that knows the
// drivers by name.
#ifndef NIMBREL2_PLATFORM_HAL_DRIVERFACTORY_H
#define NIMBREL2_PLATFORM_HAL_DRIVERFACTORY_H

#include "platform/Drivers.h"
#include "platform/Platform.h"

namespace Nimbrel2::Platform {

/// @throws std::bad_alloc. No I/O.
Drivers MakeDrivers(const Options& options, const BusEventSinks& sinks);

}  // namespace Nimbrel2::Platform

#endif
