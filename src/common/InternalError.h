// SPDX-License-Identifier: Apache-2.0
// How errors are built at the place that fails.
#ifndef NIMBREL2_COMMON_INTERNALERROR_H
#define NIMBREL2_COMMON_INTERNALERROR_H

#include "common/Error.h"

namespace Nimbrel2 {

/// Builder of an Error. The located forms allocate and may throw std::bad_alloc.
class InternalError {
public:
    /// A bare code, without message or place.
    explicit InternalError(ErrorType type) noexcept;

    /// A located error with a printf-style message.
    /// @param file, date, time  Kept as texts; null counts as empty.
    InternalError(int line, const char* file, const char* date, const char* time, ErrorType type, const char* format,
                  ...) __attribute__((format(printf, 7, 8)));

    /// The same, with the error that caused it.
    InternalError(int line, const char* file, const char* date, const char* time, ErrorType type,
                  const InternalError& cause, const char* format, ...) __attribute__((format(printf, 8, 9)));

    /// Wraps what a callee returned, so that it can be a cause.
    explicit InternalError(const Error& error) noexcept;

    ~InternalError();

    operator Error() const noexcept { return m_error; }  // NOLINT(google-explicit-constructor): how errors are returned

private:
    Error m_error;
};

}  // namespace Nimbrel2

#endif
