// SPDX-License-Identifier: Apache-2.0
// What is news on one bus: what its driver reports now, against what it reported before and what listings have shown.
// No lock, no thread, no clock and, but for what a state brings along, no memory: the caller guards it.
#ifndef NIMBREL2_PLATFORM_HAL_BUSNEWS_H
#define NIMBREL2_PLATFORM_HAL_BUSNEWS_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <tuple>
#include <utility>

#include "platform/Drivers.h"

namespace Nimbrel2::Platform {

/// The bus master lists first and registers afterwards, and from then on hears of changes. So what the last listings
/// showed is what a new registration takes for known, and what was reported last is what all others know.
///
/// A listing does not say for whom it is: what it finds is raised to every registration like any other change, for a
/// camera that nobody is told of is worse than a re-enumeration that finds nothing new.
class BusNews {
public:
    enum class Listing { Cameras, Devices };

    /// The driver reports. Calls raise(event, firstWord, secondWord) for each change, a reset first, then removals.
    template <class Raise>
    void Report(BusState state, const Raise& raise) {
        Sort(state);
        RaiseChanges(m_now, state, raise);
        m_now = std::move(state);
    }

    /// A listing has succeeded.
    void Listed(Listing listing, BusState state) {
        Sort(state);
        m_listed[static_cast<std::size_t>(listing)] = std::move(state);
    }

    /// Calls raise for what a new registration must hear at once, because it happened since the last listings.
    template <class Raise>
    void RaiseUnseen(const Raise& raise) const {
        // The kinds of listing are kept apart because they are taken one after the other: a change between them is in
        // the second, and whoever keeps both lists needs to take the first again.
        for (const std::optional<BusState>& listed : m_listed) {
            if (listed && RaiseChanges(*listed, m_now, raise)) return;
        }
        // Nobody holds a list that could be wrong; whoever never lists hears what is there.
        if (!m_listed[0] && !m_listed[1]) RaiseChanges(BusState{}, m_now, raise);
    }

private:
    static auto KeyOf(const PresentDevice& device) { return std::tie(device.identity, device.version); }

    static void Sort(BusState& state) {
        std::sort(state.devices.begin(), state.devices.end(),
                  [](const PresentDevice& a, const PresentDevice& b) { return KeyOf(a) < KeyOf(b); });
    }

    /// @return whether there was any.
    template <class Raise>
    static bool RaiseChanges(const BusState& before, const BusState& after, const Raise& raise) {
        if (before == after) return false;
        raise(HAL_BUS_RESET, 0u, 0u);
        ForEachMissing(before, after, [&](const PresentDevice& device) {
            raise(HAL_BUS_REMOVAL, device.firstWord, device.secondWord);
        });
        ForEachMissing(after, before, [&](const PresentDevice& device) {
            raise(HAL_BUS_ARRIVAL, device.firstWord, device.secondWord);
        });
        return true;
    }

    /// Devices of one state that the other lacks. Both are sorted.
    template <class Handle>
    static void ForEachMissing(const BusState& in, const BusState& from, const Handle& handle) {
        auto other = from.devices.begin();
        for (const PresentDevice& device : in.devices) {
            while (other != from.devices.end() && KeyOf(*other) < KeyOf(device)) ++other;
            if (other == from.devices.end() || KeyOf(*other) != KeyOf(device)) handle(device);
        }
    }

    BusState m_now;
    /// Per kind, as its last successful listing saw the bus. Virtual cameras are no kind of their own: they are on no
    /// bus.
    std::array<std::optional<BusState>, 2> m_listed;
};

}  // namespace Nimbrel2::Platform

#endif
