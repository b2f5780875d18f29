// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_PLATFORM_RIG_RIGDRIVERSTATE_H
#define NIMBREL2_PLATFORM_RIG_RIGDRIVERSTATE_H

#include <atomic>
#include <memory>
#include <utility>

#include "platform/rig/Rig.h"

namespace Nimbrel2::Platform {

/// What a rig's driver shares with the devices that it made, which may outlive it.
/// @par Threads  Any.
struct RigDriverState {
    explicit RigDriverState(std::shared_ptr<Rig> theRig) : rig(std::move(theRig)) {}

    /// HAL_CLOSED once the driver has stopped.
    std::uint32_t Check() const { return static_cast<std::uint32_t>(stopped ? HAL_CLOSED : HAL_OK); }

    const std::shared_ptr<Rig> rig;
    std::atomic<bool> stopped{false};
};

}  // namespace Nimbrel2::Platform

#endif
