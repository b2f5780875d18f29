// SPDX-License-Identifier: Apache-2.0
// Makes the n-th thread that the bus master starts fail. Any thread; no lock.
#ifndef NIMBREL2_TESTS_SUPPORT_THREADSTARTFAILURE_H
#define NIMBREL2_TESTS_SUPPORT_THREADSTARTFAILURE_H

namespace Nimbrel2::Testing {

/// While it lives, the n-th thread start fails once, or all from the n-th on. One at a time.
class ThreadStartFailure {
public:
    enum class Kind {
        ThreadResourceError,  ///< boost::thread_resource_error with EAGAIN.
        BadAlloc,             ///< std::bad_alloc.
        Foreign               ///< An exception of a type nobody expects.
    };

    /// @param nth  1: the next one. 0: none fails, they are only counted.
    explicit ThreadStartFailure(unsigned int nth, Kind kind = Kind::ThreadResourceError, bool allFromThereOn = false);
    ~ThreadStartFailure();
    ThreadStartFailure(const ThreadStartFailure&) = delete;
    ThreadStartFailure& operator=(const ThreadStartFailure&) = delete;

    /// True when the n-th start came.
    bool Happened() const;
    /// Starts counted, failed ones included.
    unsigned int Count() const;
};

}  // namespace Nimbrel2::Testing

#endif
