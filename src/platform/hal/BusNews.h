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
        m_isUnknown = false;
    }

    /// Something changed, and its driver has no memory to say what.
    template <class Raise>
    void ReportUnknown(const Raise& raise) {
        raise(HAL_BUS_RESET, 0u, 0u);
        m_isUnknown = true;
    }

    /// These two stand around each listing, whatever it answers.
    void BeginListing(Listing listing) {
        Shown& shown = m_shown[static_cast<std::size_t>(listing)];
        if (shown.numRunning++ == 0) {
            shown.isAnswered = false;
        }
    }
    void EndListing(Listing listing) { --m_shown[static_cast<std::size_t>(listing)].numRunning; }

    /// A listing has succeeded. Outside the two above: one that ran alone.
    void Listed(Listing listing, BusState state) {
        Sort(state);
        Shown& shown = m_shown[static_cast<std::size_t>(listing)];
        // Two listings at once: whoever registers next may hold either list.
        shown.isDisputed = shown.isAnswered && (shown.isDisputed || shown.state != state);
        shown.isAnswered = shown.numRunning > 0;
        shown.state = std::move(state);
    }

    /// Calls raise for what a new registration must hear at once, because it happened since the last listings: a reset
    /// first, then removals.
    template <class Raise>
    void RaiseUnseen(const Raise& raise) const {
        // The kinds of listing are kept apart because they are taken one after the other: a change between them is in
        // the second, and whoever keeps both lists needs to take the first again.
        const Shown& first = m_shown[0].state ? m_shown[0] : m_shown[1];
        const Shown& second = m_shown[1].state ? m_shown[1] : m_shown[0];
        if (!first.state) {
            // Nobody holds a list that could be wrong; whoever never lists hears what is there.
            if (!RaiseChanges(BusState{}, m_now, raise) && m_isUnknown) {
                raise(HAL_BUS_RESET, 0u, 0u);
            }
            return;
        }
        if (*first.state == m_now && *second.state == m_now && !first.isDisputed && !second.isDisputed &&
            !m_isUnknown) {
            return;
        }
        raise(HAL_BUS_RESET, 0u, 0u);
        for (const PresentDevice& device : first.state->devices) {
            if (!Has(m_now, device)) {
                raise(HAL_BUS_REMOVAL, device.firstWord, device.secondWord);
            }
        }
        for (const PresentDevice& device : second.state->devices) {
            if (Has(m_now, device) || Has(*first.state, device)) {
                continue;
            }
            raise(HAL_BUS_REMOVAL, device.firstWord, device.secondWord);
        }
        for (const PresentDevice& device : m_now.devices) {
            if (Has(*first.state, device) && Has(*second.state, device)) {
                continue;
            }
            raise(HAL_BUS_ARRIVAL, device.firstWord, device.secondWord);
        }
    }

private:
    static auto KeyOf(const PresentDevice& device) { return std::tie(device.identity, device.version); }

    static void Sort(BusState& state) {
        std::sort(state.devices.begin(), state.devices.end(),
                  [](const PresentDevice& a, const PresentDevice& b) { return KeyOf(a) < KeyOf(b); });
    }

    /// The state is sorted.
    static bool Has(const BusState& state, const PresentDevice& device) {
        return std::binary_search(state.devices.begin(), state.devices.end(), device,
                                  [](const PresentDevice& a, const PresentDevice& b) { return KeyOf(a) < KeyOf(b); });
    }

    /// Both are sorted. @return whether there was any.
    template <class Raise>
    static bool RaiseChanges(const BusState& before, const BusState& after, const Raise& raise) {
        if (before == after) {
            return false;
        }
        raise(HAL_BUS_RESET, 0u, 0u);
        for (const PresentDevice& device : before.devices) {
            if (!Has(after, device)) {
                raise(HAL_BUS_REMOVAL, device.firstWord, device.secondWord);
            }
        }
        for (const PresentDevice& device : after.devices) {
            if (!Has(before, device)) {
                raise(HAL_BUS_ARRIVAL, device.firstWord, device.secondWord);
            }
        }
        return true;
    }

    /// What listings of one kind have shown.
    struct Shown {
        std::optional<BusState> state;  ///< as the last successful one saw the bus
        bool isDisputed = false;        ///< another one, which ran at the same time, saw something else
        bool isAnswered = false;        ///< one that runs or ran at the same time has succeeded
        unsigned int numRunning = 0;
    };

    BusState m_now;
    bool m_isUnknown = false;  // It has changed since, nobody knows how.
    /// Virtual cameras are no kind of their own: they are on no bus.
    std::array<Shown, 2> m_shown;
};

}  // namespace Nimbrel2::Platform

#endif
