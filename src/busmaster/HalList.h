// SPDX-License-Identifier: Apache-2.0
// From a HAL listing to handles: the part that all buses share. Internal.
#ifndef NIMBREL2_BUSMASTER_HALLIST_H
#define NIMBREL2_BUSMASTER_HALLIST_H

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "busmaster/Support.h"
#include "common/BusMasterHandle.h"

namespace Nimbrel2 {

/// What becomes of one entry after it was looked at.
struct EntryOutcome {
    enum class Kind {
        Take,          ///< Append the handle.
        SkipAndFree,   ///< Drop the handle and give the entry back.
        SkipAndLeave,  ///< Drop the handle; the entry stays with the HAL until that is cleaned up.
        Fail           ///< Give up the whole bus with the error.
    };
    Kind kind = Kind::Take;
    Error error{};
};

inline EntryOutcome FailWith(Error error) { return EntryOutcome{EntryOutcome::Kind::Fail, std::move(error)}; }

/// How one bus is listed.
template <class Interface>
struct HalList {
    using FreeEntries = void (*)(void** halHandles, unsigned int end, unsigned int start);
    using FreeHandles = void (*)(std::vector<BusMasterHandle*>* list);

    FreeEntries freeEntries;
    FreeHandles freeHandles;
    const char* allocationMessage;

    /// Wraps the entries in handles, in order, and appends those to the list when every one was taken or skipped.
    /// Otherwise nothing is appended: the entries from the failing one on are given back, and the handles made so far
    /// are freed, which gives back theirs.
    /// @param identify  EntryOutcome(BusMasterHandle&, Interface&, unsigned int index); may throw.
    template <class Identify>
    Error Wrap(void** entries, unsigned int count, std::vector<BusMasterHandle*>* list, Identify identify) const {
        std::vector<BusMasterHandle*> made;
        unsigned int index = 0;
        Error error;
        try {
            made.reserve(count);
            list->reserve(list->size() + count);
            for (; index < count && error == ERROR_OK; ++index) {
                error = WrapOne(entries, index, &made, identify);
                if (error != ERROR_OK) {
                    break;
                }
            }
        } catch (const std::bad_alloc&) {
            error = InternalError(ERROR_MEMORY_ALLOCATION_FAILED);
        }
        if (error != ERROR_OK) {
            freeEntries(entries, count, index);
            freeHandles(&made);
            return error;
        }
        list->insert(list->end(), made.begin(), made.end());
        return error;
    }

private:
    template <class Identify>
    Error WrapOne(void** entries, unsigned int index, std::vector<BusMasterHandle*>* made, Identify& identify) const {
        std::unique_ptr<BusMasterHandle> handle;
        Interface* interface = nullptr;
        try {
            handle = std::make_unique<BusMasterHandle>();
            interface = new Interface(entries[index]);
            handle->hwInterface.reset(interface);  // destroys the interface when it cannot be held
        } catch (const std::bad_alloc&) {
            return NIMBREL2_ERROR(ERROR_MEMORY_ALLOCATION_FAILED, "%s", allocationMessage);
        }
        const EntryOutcome outcome = identify(*handle, *interface, index);
        switch (outcome.kind) {
            case EntryOutcome::Kind::Take:
                made->push_back(handle.release());
                break;
            case EntryOutcome::Kind::SkipAndFree:
                handle.reset();
                freeEntries(entries, index + 1, index);
                break;
            case EntryOutcome::Kind::SkipAndLeave:
                break;
            case EntryOutcome::Kind::Fail:
                return outcome.error;
        }
        return InternalError(ERROR_OK);
    }
};

/// An array that a HAL listing fills, and the number it filled, never more than there is room for.
template <std::size_t Capacity>
struct HalArray {
    std::array<void*, Capacity> entries{};
    std::uint64_t count = Capacity;

    unsigned int Count() const { return static_cast<unsigned int>(std::min<std::uint64_t>(count, Capacity)); }
};

}  // namespace Nimbrel2

#endif
