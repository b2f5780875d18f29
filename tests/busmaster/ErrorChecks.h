// SPDX-License-Identifier: Apache-2.0
// What tests expect of the Error of a public operation. Pure.
#ifndef NIMBREL2_TESTS_BUSMASTER_ERRORCHECKS_H
#define NIMBREL2_TESTS_BUSMASTER_ERRORCHECKS_H

#include <gtest/gtest.h>

#include <string>

#include "common/Error.h"

namespace Nimbrel2::Testing {

inline testing::AssertionResult IsOk(const Error& error) {
    return error == ERROR_OK ? testing::AssertionSuccess() : testing::AssertionFailure() << error.Describe();
}

/// A located error of the bus master: code, whole message, place, no cause.
inline testing::AssertionResult IsError(const Error& error, ErrorType type, const std::string& message) {
    if (error != type || error.GetMessage() != message) {
        return testing::AssertionFailure() << "code " << error.GetType() << ", " << error.Describe();
    }
    if (std::string(error.GetFile()) != "BusMaster.cpp" || error.GetLine() <= 0 || *error.GetBuildDate() == '\0' ||
        *error.GetBuildTime() == '\0' || error.GetCause() != nullptr) {
        return testing::AssertionFailure() << "not located as it should be: " << error.Describe();
    }
    return testing::AssertionSuccess();
}

#define EXPECT_OK(expression) EXPECT_TRUE(::Nimbrel2::Testing::IsOk(expression))
#define EXPECT_ERROR(expression, type, message) EXPECT_TRUE(::Nimbrel2::Testing::IsError(expression, type, message))

}  // namespace Nimbrel2::Testing

#endif
