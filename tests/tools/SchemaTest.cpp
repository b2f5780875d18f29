// SPDX-License-Identifier: Apache-2.0
// What commands print as JSON, held to the published schemas by others' validator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/NetworkNamespace.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

TEST(Schemas, DescribeEachMemberThatIsPrintedAndNoOther) {
    Nimbrel2::Testing::NetworkNamespace network;  // for the simulated cameras
    const ProgramResult result = network.RunProgram(
        {"/usr/bin/python3", NIMBREL_TESTS "/check_schemas.py", RealProgram(), NIMBREL_ON_RIG_PROGRAM, NIMBREL_SCHEMAS},
        std::chrono::minutes(2));
    EXPECT_EQ(result.exitStatus, 0) << result.output << result.errors;
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
