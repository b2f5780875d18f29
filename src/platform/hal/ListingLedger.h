// SPDX-License-Identifier: Apache-2.0
// Which changes of a bus its listings have not shown yet. No lock, no thread, no clock: the caller guards it.
#ifndef NIMBREL2_PLATFORM_HAL_LISTINGLEDGER_H
#define NIMBREL2_PLATFORM_HAL_LISTINGLEDGER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace Nimbrel2::Platform {

/// The bus master lists first and registers afterwards. A change in between would be lost if registering did not ask
/// whether the last listings are still true.
///
/// A listing reads the bus at some moment between its begin and its end, and only the driver knows when. So a listing
/// vouches for the changes counted before it began and for no other: one that came while it ran stays unseen, at worst
/// for one enumeration too many. A change that the driver finds by listing, and returns with that listing, is not
/// counted at all: the driver says nothing about it, for whoever lists learns of it from the result.
class ListingLedger {
public:
    enum class Listing { Cameras, Devices };

    void CountChange() { ++m_changes; }

    /// To be given to End when the listing that begins now has succeeded. A failed one has shown nothing.
    [[nodiscard]] std::uint64_t Begin() const { return m_changes; }

    void End(Listing listing, std::uint64_t changesAtBegin) {
        std::optional<std::uint64_t>& shown = m_shown[static_cast<std::size_t>(listing)];
        // Listings of one kind may overlap and end in any order.
        if (!shown || *shown < changesAtBegin) shown = changesAtBegin;
    }

    [[nodiscard]] bool HasUnseenChange() const {
        bool listed = false;
        for (const std::optional<std::uint64_t>& shown : m_shown) {
            if (!shown) continue;
            listed = true;
            if (*shown < m_changes) return true;
        }
        return !listed && m_changes != 0;
    }

private:
    /// How many changes the driver has raised.
    std::uint64_t m_changes = 0;

    /// Per kind of listing: how many of them its last successful one vouches for. The kinds are kept apart because they
    /// are taken one after the other: a change between them is in the second, and whoever keeps both lists needs to
    /// take the first again. Empty: never listed, so nobody holds a list of that kind that could be wrong. Virtual
    /// cameras are no kind of their own: they are listed after the cameras, whose begin is the earlier and so covers
    /// both.
    std::array<std::optional<std::uint64_t>, 2> m_shown;
};

}  // namespace Nimbrel2::Platform

#endif
