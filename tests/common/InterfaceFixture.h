// SPDX-License-Identifier: Apache-2.0
// What the tests of the three interface classes share. One thread unless a test says otherwise.
#ifndef NIMBREL2_TESTS_COMMON_INTERFACEFIXTURE_H
#define NIMBREL2_TESTS_COMMON_INTERFACEFIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/HardwareInterface.h"
#include "tests/support/ScriptedHal.h"

namespace Nimbrel2 {

class InterfaceTest : public ::testing::Test {
protected:
    using List = std::uint32_t (*)(void**, std::uint64_t*);

    /// The entry of the one device of a listing; the calls so far are forgotten.
    void* EntryFrom(List list) {
        void* entry = nullptr;
        std::uint64_t count = 1;
        EXPECT_EQ(HAL_OK, list(&entry, &count));
        EXPECT_EQ(1U, count);
        hal.ClearCalls();
        return entry;
    }

    /// The arguments behind the entry of the one call that was made.
    std::vector<std::uint64_t> OnlyCall(const std::string& function, void* entry) const {
        const std::vector<Testing::HalCall> calls = hal.Calls();
        EXPECT_EQ(1U, calls.size());
        if (calls.size() != 1) {
            return {};
        }
        EXPECT_EQ(function, calls[0].function);
        EXPECT_EQ(entry, calls[0].Entry());
        return {calls[0].arguments.begin() + 1, calls[0].arguments.end()};
    }

    /// Releases the object while an operation of it hangs in the HAL: the release answers at once, later operations
    /// are refused, and the entry goes back when the operation has ended, once.
    void ExpectReleaseWaitsForTheOperation(HardwareInterface& object, const std::string& function,
                                           const std::function<std::uint32_t()>& operation,
                                           const std::string& freeFunction) {
        const auto gate = hal.Block(function);
        std::future<std::uint32_t> running = std::async(std::launch::async, operation);
        ASSERT_TRUE(gate->WaitUntilReached());
        EXPECT_EQ(HAL_OK, object.ReleaseCamera());
        EXPECT_EQ(0U, hal.Count(freeFunction));
        EXPECT_EQ(HAL_GONE, operation());
        EXPECT_EQ(HAL_GONE, object.ReleaseCamera());
        gate->Open();
        EXPECT_EQ(HAL_OK, running.get());
        EXPECT_EQ(1U, hal.Count(freeFunction));
        hal.ExpectAllEntriesGivenBackOnce();
    }

    /// What GetConfigInfo answers, with buffers of the size that enumeration uses.
    struct Config {
        std::uint32_t numbers[5] = {};
        char vendor[512] = {};
        char model[512] = {};
        std::uint32_t vendorSize = sizeof vendor;
        std::uint32_t modelSize = sizeof model;

        std::uint32_t Read(HardwareInterface& object) {
            return object.GetConfigInfo(&numbers[0], &numbers[1], &numbers[2], &numbers[3], &numbers[4], vendor, model,
                                        &vendorSize, &modelSize);
        }
    };

    Testing::ScriptedHal hal;
};

}  // namespace Nimbrel2

#endif
