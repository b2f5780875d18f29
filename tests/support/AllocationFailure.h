// SPDX-License-Identifier: Apache-2.0
// Makes the n-th allocation of a test binary fail, by its own operator new: on one thread, or counted over several.
// Any thread; no lock. A test binary that names these classes gets the operators with them.
#ifndef NIMBREL2_TESTS_SUPPORT_ALLOCATIONFAILURE_H
#define NIMBREL2_TESTS_SUPPORT_ALLOCATIONFAILURE_H

#include <cstdint>

namespace Nimbrel2::Testing {

/// While it lives, the n-th allocation fails once: throwing operators throw std::bad_alloc, the others return null.
/// Allocations made under a Pause neither count nor fail. At most one object a scope at a time.
class AllocationFailure {
public:
    enum class Scope {
        ThisThread,  ///< Counts the allocations of the thread that made the object; destroy it there too.
        AllThreads   ///< Counts those of every thread.
    };

    /// @param nth  1: the next allocation. 0: none fails, they are only counted.
    explicit AllocationFailure(std::uint64_t nth, Scope scope = Scope::ThisThread);
    /// Counts the allocations of threads of that name alone: those of a driver's monitor.
    /// @param threadName  Must outlive the object.
    AllocationFailure(std::uint64_t nth, const char* threadName);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    /// True when the n-th allocation came. A sweep over n ends at the first n for which it did not.
    bool Happened() const;

    /// Allocations counted since the object was made.
    std::uint64_t Count() const;

    /// Leaves the allocations of this thread alone: the test's own, and those of its doubles.
    class Pause {
    public:
        Pause();
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;
    };

private:
    const Scope m_scope;
};

}  // namespace Nimbrel2::Testing

#endif
