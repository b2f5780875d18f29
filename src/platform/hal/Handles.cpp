// SPDX-License-Identifier: Apache-2.0
// The counter behind all handles. Any thread; no lock.
#include "platform/hal/Handles.h"

#include <atomic>

namespace Nimbrel2::Platform {

static_assert(sizeof(Handle) == 8, "a counter of 32 bits could come round and give a handle twice");

Handle NextHandle() {
    static constinit std::atomic<Handle> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace Nimbrel2::Platform
