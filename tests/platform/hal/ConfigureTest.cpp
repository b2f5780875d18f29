// SPDX-License-Identifier: Apache-2.0
// Options that are taken, and wrong ones with the reason that names them.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/Platform.h"
#include "platform/hal/Process.h"

namespace Nimbrel2::Platform {
namespace {

using namespace std::chrono_literals;

class ConfigureTest : public ::testing::Test {
protected:
    /// The options that the next start hands to the drivers.
    Options OptionsOfAStart() {
        Options seen;
        const DriverFactory factory = [&seen](const Options& options, const BusEventSinks&) {
            seen = options;
            return Drivers{};
        };
        EXPECT_EQ(Process::Get().SetDriverFactory(factory), HAL_OK);
        EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
        EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
        EXPECT_EQ(Process::Get().SetDriverFactory({}), HAL_OK);
        return seen;
    }

    void TearDown() override {
        HAL_CleanupLibrary();
        EXPECT_TRUE(Configure(Options{}));
    }
};

TEST_F(ConfigureTest, TheDefaultsAreGood) {
    const ConfigureResult result = Configure(Options{});
    EXPECT_TRUE(result);
    EXPECT_EQ(result.status, HAL_OK);
    EXPECT_EQ(result.reason, "");
}

TEST_F(ConfigureTest, TheNextStartsGetWhatWasConfigured) {
    Options options;
    options.usb = Driver::None;
    options.networkInterfaces = {"eth0", "lo"};
    options.discoveryWindow = 250ms;
    options.usbCameraIds = {{0x1234, 0x5678}};
    ASSERT_TRUE(Configure(options));
    for (int start = 0; start < 2; ++start) {
        const Options seen = OptionsOfAStart();
        EXPECT_EQ(seen.fireWire, Driver::Linux);
        EXPECT_EQ(seen.usb, Driver::None);
        EXPECT_EQ(seen.networkInterfaces, options.networkInterfaces);
        EXPECT_EQ(seen.discoveryWindow, 250ms);
        ASSERT_EQ(seen.usbCameraIds.size(), 1u);
        EXPECT_EQ(seen.usbCameraIds[0].product, 0x5678);
    }
}

TEST_F(ConfigureTest, IsRefusedWhileTheHalRuns) {
    Options options;
    options.fireWire = options.usb = options.gigE = Driver::None;
    ASSERT_TRUE(Configure(options));
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    Options other = options;
    other.discoveryWindow = 77ms;
    const ConfigureResult refused = Configure(other);
    EXPECT_FALSE(refused);
    EXPECT_EQ(refused.status, HAL_BUSY);
    EXPECT_EQ(refused.reason, "the HAL is running");
    EXPECT_EQ(Process::Get().SetDriverFactory({}), HAL_BUSY);
    EXPECT_EQ(Process::Get().SetThreadStarter({}), HAL_BUSY);
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(OptionsOfAStart().discoveryWindow, 1000ms);
}

TEST_F(ConfigureTest, AWrongOptionChangesNothing) {
    Options good;
    good.discoveryWindow = 50ms;
    ASSERT_TRUE(Configure(good));
    Options wrong;
    wrong.discoveryWindow = 60s;
    wrong.networkInterfaces = {""};
    EXPECT_EQ(Configure(wrong).status, HAL_INVALID_ARGUMENT);
    EXPECT_EQ(OptionsOfAStart().discoveryWindow, 50ms);
}

TEST_F(ConfigureTest, TakesEveryWindowFromTenMillisecondsToAMinute) {
    for (const auto window : {10ms, 11ms, 1000ms, 30000ms}) {
        Options options;
        options.discoveryWindow = window;
        EXPECT_TRUE(Configure(options)) << window.count();
    }
}

TEST_F(ConfigureTest, TakesEveryNameThatTheKernelTakes) {
    Options options;
    options.networkInterfaces = {"e", "eth0", "enp0s31f6", "veth-1.2_x", "fifteen-letters", "..."};
    EXPECT_TRUE(Configure(options)) << Configure(options).reason;
}

TEST_F(ConfigureTest, TakesTheFewestSourcePortsAndTheLastOnes) {
    Options options;
    options.sourcePorts = PortRange{40000, 40004};
    EXPECT_TRUE(Configure(options)) << Configure(options).reason;
    options.sourcePorts = PortRange{65531, 65535};
    EXPECT_TRUE(Configure(options)) << Configure(options).reason;
}

struct WrongOption {
    const char* name;
    void (*set)(Options&);
    const char* reason;
};

std::ostream& operator<<(std::ostream& out, const WrongOption& option) { return out << option.name; }

class ConfigureWrong : public ConfigureTest, public ::testing::WithParamInterface<WrongOption> {};

TEST_P(ConfigureWrong, IsRefusedWithItsReason) {
    Options options;
    GetParam().set(options);
    const ConfigureResult result = Configure(options);
    EXPECT_FALSE(result);
    EXPECT_EQ(result.status, HAL_INVALID_ARGUMENT);
    EXPECT_EQ(result.reason, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(
    Options, ConfigureWrong,
    ::testing::Values(
        WrongOption{"WindowOfNineMs", [](Options& o) { o.discoveryWindow = 9ms; },
                    "discoveryWindow: 9 ms is not within 10 ms to 30000 ms"},
        WrongOption{"WindowBelowZero", [](Options& o) { o.discoveryWindow = -1ms; },
                    "discoveryWindow: -1 ms is not within 10 ms to 30000 ms"},
        WrongOption{"WindowAboveHalfAMinute", [](Options& o) { o.discoveryWindow = 30001ms; },
                    "discoveryWindow: 30001 ms is not within 10 ms to 30000 ms"},
        WrongOption{"SearchForNobody", [](Options& o) { o.searchFor = GigECameraName{}; },
                    "searchFor: either the address or the MAC names the camera, not neither"},
        WrongOption{"SearchForTwoNames",
                    [](Options& o) {
                        o.searchFor = GigECameraName{1, 1};
                    },
                    "searchFor: either the address or the MAC names the camera, not both"},
        WrongOption{"SearchForALongMac",
                    [](Options& o) {
                        o.searchFor = GigECameraName{0, 1ull << 48};
                    },
                    "searchFor: a MAC has 48 bits"},
        WrongOption{"SourcePortsOfTheSystem",
                    [](Options& o) {
                        o.sourcePorts = PortRange{1023, 2000};
                    },
                    "sourcePorts: 1023-2000 begins below 1024"},
        WrongOption{"SourcePortsBackwards",
                    [](Options& o) {
                        o.sourcePorts = PortRange{40001, 40000};
                    },
                    "sourcePorts: 40001-40000 ends before it begins"},
        WrongOption{"OneSourcePort",
                    [](Options& o) {
                        o.sourcePorts = PortRange{40000, 40000};
                    },
                    "sourcePorts: 40000-40000 has 1 port; 4 are needed for each network interface, and one more for "
                    "each camera"},
        WrongOption{"SourcePortsForNoCamera",
                    [](Options& o) {
                        o.sourcePorts = PortRange{40000, 40003};
                    },
                    "sourcePorts: 40000-40003 has 4 ports; 4 are needed for each network interface, and one more for "
                    "each camera"},
        WrongOption{"EmptyName", [](Options& o) { o.networkInterfaces = {""}; }, "networkInterfaces: \"\" is empty"},
        WrongOption{"SixteenLetters", [](Options& o) { o.networkInterfaces = {"sixteen--letters"}; },
                    "networkInterfaces: \"sixteen--letters\" is longer than 15 characters"},
        WrongOption{"Slash", [](Options& o) { o.networkInterfaces = {"a/b"}; },
                    "networkInterfaces: \"a/b\" contains a character that no interface name has"},
        WrongOption{"Colon", [](Options& o) { o.networkInterfaces = {"eth0:1"}; },
                    "networkInterfaces: \"eth0:1\" contains a character that no interface name has"},
        WrongOption{"ZeroByte", [](Options& o) { o.networkInterfaces = {std::string("a\0b", 3)}; },
                    "networkInterfaces: \"a\\x00b\" contains a character that no interface name has"},
        WrongOption{"Dot", [](Options& o) { o.networkInterfaces = {"."}; },
                    "networkInterfaces: \".\" is no interface name"},
        WrongOption{"DotDot", [](Options& o) { o.networkInterfaces = {".."}; },
                    "networkInterfaces: \"..\" is no interface name"},
        WrongOption{"Space", [](Options& o) { o.networkInterfaces = {"eth 0"}; },
                    "networkInterfaces: \"eth 0\" contains white space"},
        WrongOption{"LineEnd", [](Options& o) { o.networkInterfaces = {"eth0\n"}; },
                    "networkInterfaces: \"eth0\\x0a\" contains white space"},
        WrongOption{"NameTwice",
                    [](Options& o) {
                        o.networkInterfaces = {"lo", "eth0", "lo"};
                    },
                    "networkInterfaces: \"lo\" is named twice"},
        WrongOption{"UsbIdTwice",
                    [](Options& o) {
                        o.usbCameraIds = {{0x1234, 0x000a}, {0x1234, 0x000b}, {0x1234, 0x000a}};
                    },
                    "usbCameraIds: 1234:000a is named twice"},
        WrongOption{"NoSuchDriver", [](Options& o) { o.gigE = static_cast<Driver>(7); }, "gigE: there is no driver 7"},
        WrongOption{"RigDriverWithoutARig", [](Options& o) { o.usb = Driver::Rig; },
                    "usb: there is no rig to drive it"},
        WrongOption{"SeveralAtOnce",
                    [](Options& o) {
                        o.fireWire = static_cast<Driver>(9);
                        o.networkInterfaces = {"", "a b"};
                        o.discoveryWindow = 0ms;
                    },
                    "fireWire: there is no driver 9; networkInterfaces: \"\" is empty; "
                    "networkInterfaces: \"a b\" contains white space; "
                    "discoveryWindow: 0 ms is not within 10 ms to 30000 ms"}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace Nimbrel2::Platform
