// SPDX-License-Identifier: Apache-2.0
// What the tests of the bus master's operations share: a scripted HAL, recorded traces, exact errors, handles made by
// hand. One thread unless a test says otherwise.
#ifndef NIMBREL2_TESTS_BUSMASTER_COREFIXTURE_H
#define NIMBREL2_TESTS_BUSMASTER_COREFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/GuidGenerator.h"
#include "tests/support/CoreAccess.h"
#include "tests/support/ScriptedHal.h"
#include "tests/support/TraceRecorder.h"

namespace Nimbrel2 {

using Access = BusMasterTestAccess;
using HandleList = Access::HandleList;
using Names = std::vector<std::string>;

/// A located error of the bus master with exactly this code and message.
inline void ExpectError(const Error& error, ErrorType type, const std::string& message) {
    EXPECT_EQ(type, error.GetType()) << error.Describe();
    EXPECT_EQ(message, error.GetMessage());
    EXPECT_STREQ("BusMaster.cpp", error.GetFile());
    EXPECT_GT(error.GetLine(), 0);
    EXPECT_EQ(11U, std::string(error.GetBuildDate()).size());
    EXPECT_EQ(8U, std::string(error.GetBuildTime()).size());
}

inline void ExpectOk(const Error& error) { EXPECT_TRUE(error == ERROR_OK) << error.Describe(); }

/// The identifier of a key text.
inline ZevoGuid HashOf(const std::string& key) {
    ZevoGuid guid;
    GuidGenerator::HashKey(key, &guid);
    return guid;
}

inline std::string Hex(std::uint32_t number) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", number);
    return text;
}

class CoreTest : public ::testing::Test {
protected:
    ~CoreTest() override { hal.ExpectNoMisuse(); }

    Testing::ScriptedHal hal;
    Testing::TraceRecorder traces;
};

/// An interface object without a HAL behind it, of any kind that a test wants.
class FakeInterface : public HardwareInterface {
public:
    explicit FakeInterface(InterfaceType type, int* released = nullptr)
        : HardwareInterface(nullptr), m_type(type), m_released(released) {}

    std::uint32_t ReleaseCamera() override {
        if (m_released != nullptr) {
            ++*m_released;
        }
        return HAL_OK;
    }
    std::uint32_t ReleaseDevice() override { return ReleaseCamera(); }
    std::uint32_t GetConfigInfo(std::uint32_t*, std::uint32_t*, std::uint32_t*, std::uint32_t*, std::uint32_t*, char*,
                                char*, std::uint32_t*, std::uint32_t*) override {
        return HAL_NOT_SUPPORTED;
    }
    std::uint32_t WriteRegister(std::uint64_t, std::uint32_t, std::uint32_t, std::uint32_t) override {
        return HAL_NOT_SUPPORTED;
    }
    std::uint32_t ReadRegister(std::uint64_t, std::uint32_t, std::uint32_t*) override { return HAL_NOT_SUPPORTED; }
    InterfaceType GetInterfaceType() override { return m_type; }
    std::uint32_t GetCameraInfo(CameraInfo*) override { return HAL_NOT_SUPPORTED; }

private:
    const InterfaceType m_type;
    int* const m_released;
};

inline BusMasterHandle* NewHandle(const ZevoGuid& guid, std::uint32_t serialNumber, HardwareInterface* hwInterface) {
    auto handle = std::make_unique<BusMasterHandle>();
    handle->guid = guid;
    handle->serialNumber = serialNumber;
    handle->hwInterface.reset(hwInterface);
    return handle.release();
}

/// A bus master whose lists a test fills and whose worker never runs. It counts as initialised when the test says so.
class BusMasterByHand {
public:
    ~BusMasterByHand() { SetInitialized(false); }  // there is no worker to stop

    void SetInitialized(bool initialized) { members().SetInitialized(initialized); }
    Access::Members& members() { return Access::Get(object); }
    HandleList& cameras() { return members().m_cameraList; }
    HandleList& devices() { return members().m_deviceList; }

    BusMaster object;
};

}  // namespace Nimbrel2

#endif
