// SPDX-License-Identifier: Apache-2.0
// The clock that every deadline and period of the platform is on. It never jumps.
#ifndef NIMBREL2_PLATFORM_BASE_CLOCK_H
#define NIMBREL2_PLATFORM_BASE_CLOCK_H

#include <chrono>

namespace Nimbrel2::Platform {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Milliseconds = std::chrono::milliseconds;

}  // namespace Nimbrel2::Platform

#endif
