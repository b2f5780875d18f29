// SPDX-License-Identifier: Apache-2.0
// What every public operation returns.
#ifndef NIMBREL2_COMMON_ERROR_H
#define NIMBREL2_COMMON_ERROR_H

#include <memory>
#include <string>

#include "common/ErrorType.h"
#include "hal/Export.h"

namespace Nimbrel2 {

/// The result of an operation: a code and, for a located error, a message, the place that raised it and the error that
/// caused it. A value: copies share what they hold, which never changes. Copying never fails.
/// @par Threads  One object from one thread at a time; copies are independent.
class NIMBREL2_API Error {
public:
    /// Success.
    Error() noexcept = default;

    bool operator==(const ErrorType& type) const noexcept { return m_type == type; }
    bool operator!=(const ErrorType& type) const noexcept { return m_type != type; }
    /// Errors are equal when their codes are.
    bool operator==(const Error& other) const noexcept { return m_type == other.m_type; }
    bool operator!=(const Error& other) const noexcept { return m_type != other.m_type; }

    ErrorType GetType() const noexcept { return m_type; }

    /// The texts are empty, and the line 0, for an error without a location; they live as long as a copy of this error.
    const char* GetMessage() const noexcept;
    const char* GetFile() const noexcept;
    int GetLine() const noexcept;
    const char* GetBuildDate() const noexcept;
    const char* GetBuildTime() const noexcept;

    /// The error that caused this one, null when there is none. Lives as long as a copy of this error.
    const Error* GetCause() const noexcept;

    /// The whole chain, for people: each message with its place, the cause behind it. What the code means when there is
    /// no message: "out of memory (error 10)"; "success" for ERROR_OK.
    std::string Describe() const;

private:
    friend class InternalError;
    struct Details;

    ErrorType m_type = ERROR_OK;
    std::shared_ptr<const Details> m_details;
};

}  // namespace Nimbrel2

#endif
