// SPDX-License-Identifier: Apache-2.0
// What the questions of Diagnostics.h hand to the driver and what they bring back.
#include "platform/Diagnostics.h"
#include "platform/Platform.h"
#include "tests/platform/hal/HalFixture.h"

namespace Nimbrel2::Platform::Testing {
namespace {

class Diagnostics : public HalFixture {};

TEST_F(Diagnostics, BringWhatTheDriverKnows) {
    world->diagnosis.interfaces.resize(2);
    world->diagnosis.interfaces[1].interface.name = "eth1";
    world->hearing.muted.resize(3);
    world->plans.resize(1);
    world->plans[0].newIp = 0xC0A84D02;
    GigEDiagnosis diagnosis;
    ASSERT_EQ(DiagnoseGigE(true, &diagnosis), HAL_OK);
    ASSERT_EQ(diagnosis.interfaces.size(), 2u);
    EXPECT_EQ(diagnosis.interfaces[1].interface.name, "eth1");
    ASSERT_EQ(DiagnoseGigE(false, &diagnosis), HAL_OK);
    GigEHearing hearing;
    ASSERT_EQ(TestGigEHearing(&hearing), HAL_OK);
    EXPECT_EQ(hearing.muted.size(), 3u);
    std::vector<AddressPlan> plans;
    ASSERT_EQ(PlanGigEAddresses(std::nullopt, &plans), HAL_OK);
    ASSERT_EQ(plans.size(), 1u);
    EXPECT_EQ(plans[0].newIp, 0xC0A84D02);
    ASSERT_EQ(PlanGigEAddresses(42, &plans), HAL_OK);
    EXPECT_EQ(world->TakeLog(), (std::vector<std::string>{"Diagnose 1", "Diagnose 0", "TestHearing", "PlanAddresses",
                                                          "PlanAddresses 42"}));
}

TEST_F(Diagnostics, AnswerWhatTheDriverAnswersAndLetNothingBeThrown) {
    GigEDiagnosis diagnosis;
    std::vector<AddressPlan> plans;
    world->status = HAL_PERMISSION;
    EXPECT_EQ(DiagnoseGigE(true, &diagnosis), HAL_PERMISSION);
    EXPECT_EQ(PlanGigEAddresses(1, &plans), HAL_PERMISSION);
    GigEHearing hearing;
    EXPECT_EQ(TestGigEHearing(&hearing), HAL_PERMISSION);
    EXPECT_EQ(TestGigEHearing(nullptr), HAL_INVALID_ARGUMENT);
    world->toThrow = Throw::BadAlloc;
    EXPECT_EQ(DiagnoseGigE(true, &diagnosis), HAL_OUT_OF_MEMORY);
    EXPECT_EQ(PlanGigEAddresses(1, &plans), HAL_OUT_OF_MEMORY);
    world->toThrow = Throw::RuntimeError;
    EXPECT_EQ(DiagnoseGigE(true, &diagnosis), HAL_FAILED);
    EXPECT_EQ(PlanGigEAddresses(1, &plans), HAL_FAILED);
    EXPECT_EQ(DiagnoseGigE(true, nullptr), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(PlanGigEAddresses(1, nullptr), HAL_INVALID_ARGUMENT);
}

class BusSupport : public HalFixture {
protected:
    void TearDown() override {
        HalFixture::TearDown();
        Configure({});
    }

    static std::vector<std::uint32_t> StartAnew(const DriverFactory& factory, const Options& options) {
        EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
        EXPECT_EQ(Process::Get().SetDriverFactory(factory), HAL_OK);
        EXPECT_TRUE(Configure(options));
        EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
        return {GetBusSupport(HAL_INTERFACE_1394), GetBusSupport(HAL_INTERFACE_USB), GetBusSupport(HAL_INTERFACE_GIGE)};
    }
};

TEST_F(BusSupport, IsFullWhereEachDriverHasStarted) {
    EXPECT_EQ(StartAnew(FakeDrivers(world), {}), (std::vector<std::uint32_t>{HAL_OK, HAL_OK, HAL_OK}));
    EXPECT_EQ(GetBusSupport(static_cast<HALInterfaceType>(3)), HAL_INVALID_ARGUMENT);
}

TEST_F(BusSupport, TellsADriverThatCannotStartFromAMissingOneAndOneThatNobodyWants) {
    world->gigEStart = HAL_PERMISSION;
    const auto gigEAlone = [this](const Options& options, const BusEventSinks& sinks) {
        Drivers drivers = FakeDrivers(world)(options, sinks);
        drivers.fireWire = nullptr;
        drivers.usb = nullptr;
        return drivers;
    };
    Options options;
    options.usb = Driver::None;
    EXPECT_EQ(StartAnew(gigEAlone, options), (std::vector<std::uint32_t>{HAL_NOT_SUPPORTED, HAL_NO_BUS, HAL_PERMISSION}));
}

TEST(DiagnosticsOutsideTheHal, AreClosed) {
    EXPECT_EQ(GetBusSupport(HAL_INTERFACE_1394), HAL_CLOSED);
    GigEDiagnosis diagnosis;
    std::vector<AddressPlan> plans;
    EXPECT_EQ(DiagnoseGigE(true, &diagnosis), HAL_CLOSED);
    EXPECT_EQ(PlanGigEAddresses(1, &plans), HAL_CLOSED);
    GigEHearing hearing;
    EXPECT_EQ(TestGigEHearing(&hearing), HAL_CLOSED);
}

TEST(DiagnosticsOfABusThatNobodyDrives, SayThatThereIsNone) {
    Options options;
    options.fireWire = options.usb = options.gigE = Driver::None;
    ASSERT_TRUE(Configure(options));
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    GigEDiagnosis diagnosis;
    diagnosis.cameras.resize(1);
    std::vector<AddressPlan> plans(1);
    EXPECT_EQ(DiagnoseGigE(true, &diagnosis), HAL_NO_BUS);
    EXPECT_EQ(PlanGigEAddresses(1, &plans), HAL_NO_BUS);
    GigEHearing hearing;
    hearing.muted.resize(1);
    EXPECT_EQ(TestGigEHearing(&hearing), HAL_NO_BUS);
    EXPECT_TRUE(hearing.muted.empty());
    EXPECT_TRUE(diagnosis.cameras.empty());
    EXPECT_TRUE(plans.empty());
    HAL_CleanupLibrary();
    EXPECT_TRUE(Configure(Options{}));
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
