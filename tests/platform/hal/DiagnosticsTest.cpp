// SPDX-License-Identifier: Apache-2.0
// What the questions of Diagnostics.h hand to the driver and what they bring back.
#include "platform/BusMap.h"
#include "platform/Diagnostics.h"
#include "platform/FireWireDiagnostics.h"
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
    world->discovered.cameras.resize(4);
    world->report.problems.resize(5);
    world->forced.verified = true;
    world->holder.kind = AddressHolder::Kind::Host;
    GigEDiagnosis diagnosis;
    ASSERT_EQ(DiagnoseGigE(true, &diagnosis), HAL_OK);
    ASSERT_EQ(diagnosis.interfaces.size(), 2u);
    EXPECT_EQ(diagnosis.interfaces[1].interface.name, "eth1");
    ASSERT_EQ(DiagnoseGigE(false, &diagnosis), HAL_OK);
    GigEHearing hearing;
    ASSERT_EQ(FindMutedGigECameras(&hearing), HAL_OK);
    EXPECT_EQ(hearing.muted.size(), 3u);
    std::vector<AddressPlan> plans;
    ASSERT_EQ(PlanGigEAddresses(std::nullopt, &plans), HAL_OK);
    ASSERT_EQ(plans.size(), 1u);
    EXPECT_EQ(plans[0].newIp, 0xC0A84D02);
    ASSERT_EQ(PlanGigEAddresses(42, &plans), HAL_OK);
    ASSERT_EQ(ApplyGigEAddresses(&plans), HAL_OK);
    GigEDiscovery discovery;
    ASSERT_EQ(DiscoverGigE(std::nullopt, &discovery), HAL_OK);
    EXPECT_EQ(discovery.cameras.size(), 4u);
    ASSERT_EQ(DiscoverGigE(GigECameraName{7, 0}, &discovery), HAL_OK);
    GigESearchReport report;
    ASSERT_EQ(GetGigESearchReport(&report), HAL_OK);
    EXPECT_EQ(report.problems.size(), 5u);
    ForceIpResult forced;
    ASSERT_EQ(ForceGigEAddress({9, 0xC0A84D02, 0xFFFFFF00, 0}, &forced), HAL_OK);
    EXPECT_TRUE(forced.verified);
    AddressHolder holder;
    ASSERT_EQ(FindGigEAddressHolder(0xC0A84D02, &holder), HAL_OK);
    EXPECT_EQ(holder.kind, AddressHolder::Kind::Host);
    EXPECT_EQ(world->TakeLog(),
              (std::vector<std::string>{"Diagnose 1", "Diagnose 0", "FindMutedCameras", "PlanAddresses",
                                        "PlanAddresses 42", "ApplyAddresses 1", "Discover 7 0", "GetSearchReport",
                                        "ForceAddress 9 c0a84d02 ffffff00 0", "FindAddressHolder c0a84d02"}));
}

TEST_F(Diagnostics, BringWhatTheFireWireDriverKnowsInPlaceOfWhatWasThere) {
    world->fireWireDiagnosis.buses.resize(2);
    world->fireWireDiagnosis.buses[1].path = "/devices/1";
    FireWireDiagnosis diagnosis;
    diagnosis.buses.resize(7);
    ASSERT_EQ(DiagnoseFireWire(true, &diagnosis), HAL_OK);
    ASSERT_EQ(diagnosis.buses.size(), 2u);
    EXPECT_EQ(diagnosis.buses[1].path, "/devices/1");
    ASSERT_EQ(DiagnoseFireWire(false, &diagnosis), HAL_OK);
    EXPECT_EQ(world->TakeLog(), (std::vector<std::string>{"FireWire Diagnose 1", "FireWire Diagnose 0"}));
}

TEST_F(Diagnostics, BringWhatTheUsbDriverKnowsInPlaceOfWhatWasThere) {
    world->usbDiagnosis.devices.resize(2);
    world->usbDiagnosis.devices[1].name = "2-1";
    UsbDiagnosis diagnosis;
    diagnosis.devices.resize(7);
    ASSERT_EQ(DiagnoseUsb(&diagnosis), HAL_OK);
    ASSERT_EQ(diagnosis.devices.size(), 2u);
    EXPECT_EQ(diagnosis.devices[1].name, "2-1");
    EXPECT_EQ(world->TakeLog(), std::vector<std::string>{"USB Diagnose"});
}

/// Asks every question. @param null  Without room for an answer.
std::vector<std::uint32_t> AskAll(bool null) {
    GigEDiagnosis diagnosis;
    FireWireDiagnosis fireWire;
    GigESearchReport report;
    GigEDiscovery discovery;
    GigEHearing hearing;
    std::vector<AddressPlan> plans;
    ForceIpResult forced;
    AddressHolder holder;
    UsbDiagnosis usb;
    const GigEAddress address{1, 0xC0A84D02, 0xFFFFFF00, 0};
    return {DiagnoseGigE(true, null ? nullptr : &diagnosis),         GetGigESearchReport(null ? nullptr : &report),
            DiscoverGigE(std::nullopt, null ? nullptr : &discovery), FindMutedGigECameras(null ? nullptr : &hearing),
            PlanGigEAddresses(1, null ? nullptr : &plans),           ApplyGigEAddresses(null ? nullptr : &plans),
            ForceGigEAddress(address, null ? nullptr : &forced),     FindGigEAddressHolder(7, null ? nullptr : &holder),
            DiagnoseFireWire(true, null ? nullptr : &fireWire),      DiagnoseUsb(null ? nullptr : &usb)};
}

std::vector<std::uint32_t> All(std::uint32_t status) { return std::vector<std::uint32_t>(10, status); }

TEST_F(Diagnostics, AnswerWhatTheDriverAnswersAndLetNothingBeThrown) {
    EXPECT_EQ(AskAll(true), All(HAL_INVALID_ARGUMENT));
    world->status = HAL_PERMISSION;
    EXPECT_EQ(AskAll(false), All(HAL_PERMISSION));
    world->toThrow = Throw::BadAlloc;
    EXPECT_EQ(AskAll(false), All(HAL_OUT_OF_MEMORY));
    world->toThrow = Throw::RuntimeError;
    EXPECT_EQ(AskAll(false), All(HAL_FAILED));
}

TEST_F(Diagnostics, GiveNoCameraAnAddressThatNoneCanHave) {
    ForceIpResult result;
    EXPECT_EQ(ForceGigEAddress({1, 0xC0A84D00, 0xFFFFFF00, 0}, &result), HAL_BAD_ADDRESS);
    EXPECT_EQ(ForceGigEAddress({1, 0xC0A84D02, 0xFFFFFFFF, 0}, &result), HAL_BAD_MASK);
    EXPECT_EQ(ForceGigEAddress({1, 0xC0A84D02, 0xFFFFFF00, 1}, &result), HAL_BAD_GATEWAY);
    EXPECT_TRUE(world->TakeLog().empty());
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
    EXPECT_EQ(StartAnew(gigEAlone, options),
              (std::vector<std::uint32_t>{HAL_NOT_SUPPORTED, HAL_NO_BUS, HAL_PERMISSION}));
}

TEST(DiagnosticsOutsideTheHal, AreClosed) {
    EXPECT_EQ(AskAll(false), All(HAL_CLOSED));
    EXPECT_EQ(GetBusSupport(HAL_INTERFACE_1394), HAL_CLOSED);
}

TEST(DiagnosticsOfABusThatNobodyDrives, SayThatThereIsNone) {
    Options options;
    options.fireWire = options.usb = options.gigE = Driver::None;
    ASSERT_TRUE(Configure(options));
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    EXPECT_EQ(AskAll(false), All(HAL_NO_BUS));
    GigEDiagnosis diagnosis;
    diagnosis.cameras.resize(1);
    DiagnoseGigE(true, &diagnosis);
    EXPECT_TRUE(diagnosis.cameras.empty()) << "no answer is not an old one";
    HAL_CleanupLibrary();
    EXPECT_TRUE(Configure(Options{}));
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
