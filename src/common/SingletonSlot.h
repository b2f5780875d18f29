// SPDX-License-Identifier: Apache-2.0
// Where Singleton keeps its object.
#ifndef NIMBREL2_COMMON_SINGLETONSLOT_H
#define NIMBREL2_COMMON_SINGLETONSLOT_H

#include <atomic>
#include <cstdint>

#include "hal/Export.h"

namespace Nimbrel2 {

/// One object of a process, from its first use to its destruction. Needs neither constructor nor destructor to run, so
/// it is good at any time of a program. Waits for nobody but another thread that makes the object.
/// @par Threads  Any.
class NIMBREL2_API SingletonSlot {
public:
    constexpr SingletonSlot() = default;

    /// The object, made on first use. After its destruction a thread of the library waits for the end of the process,
    /// and any other ends the program with a message.
    /// @throws what make throws; the next call tries again.
    void* Get(void* (*make)());

    /// Destroys the object, if there is one and this process has made it; its memory stays. Once.
    void Destroy(void (*destroy)(void* object));

private:
    enum Phase : std::uint32_t { Empty, Making, Made, Destroying, Destroyed };

    void* Make(void* (*make)(), std::uint32_t process);

    // The phase in the low bits, the process that made or makes the object in the others.
    std::atomic<std::uint32_t> m_state{Empty};
    std::atomic<void*> m_object{nullptr};
};

}  // namespace Nimbrel2

#endif
