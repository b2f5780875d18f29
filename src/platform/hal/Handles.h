// SPDX-License-Identifier: Apache-2.0
// The opaque values that cross the HAL line: numbers dressed as pointers. Any thread; no lock.
#ifndef NIMBREL2_PLATFORM_HAL_HANDLES_H
#define NIMBREL2_PLATFORM_HAL_HANDLES_H

#include <bit>
#include <cstdint>

namespace Nimbrel2::Platform {

using Handle = std::uintptr_t;

/// A number that this process has never given out: not to another entry, not to a registration, not before the last
/// clean-up. A stale handle is therefore unknown and never somebody else's. Never 0.
Handle NextHandle();

inline void* ToPointer(Handle handle) { return std::bit_cast<void*>(handle); }
inline Handle ToHandle(const void* pointer) { return std::bit_cast<Handle>(pointer); }

}  // namespace Nimbrel2::Platform

#endif
