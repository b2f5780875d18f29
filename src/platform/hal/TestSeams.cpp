// SPDX-License-Identifier: Apache-2.0
// Puts test drivers and thread starters in place. Runs on test threads.
#include "platform/hal/TestSeams.h"

#include <utility>

#include "platform/hal/Process.h"

namespace Nimbrel2::Platform {

std::uint32_t InstallDriversForTest(DriverFactory factory) {
    return Process::Get().SetDriverFactory(factory ? std::move(factory) : DriverFactory(&MakeDrivers));
}

std::uint32_t InstallThreadStarterForTest(ThreadStarter starter) {
    return Process::Get().SetThreadStarter(starter ? std::move(starter) : ThreadStarter(&StartThread));
}

}  // namespace Nimbrel2::Platform
