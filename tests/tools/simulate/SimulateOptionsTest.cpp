// SPDX-License-Identifier: Apache-2.0
// Option values of the simulation, good and bad, and the cameras that follow from them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/nimbrel/SimulateOptions.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::Gvcp::MessageId;
using Platform::Gvcp::Status;
using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

TEST(SimulateValues, AreReadWhole) {
    EXPECT_EQ(ReadAddress("192.168.77.50"), 0xC0A84D32u);
    EXPECT_EQ(ReadHostAddress("223.255.255.254"), 0xDFFFFFFEu);
    EXPECT_EQ(ReadSubnetMask("255.255.240.0"), 0xFFFFF000u);
    EXPECT_EQ(ReadSubnetMask("/24"), 0xFFFFFF00u);
    EXPECT_EQ(ReadSubnetMask("9"), 0xFF800000u);
    EXPECT_EQ(ReadMac("02-B0-5e-0a-0B-0c"), 0x02B05E0A0B0Cu);
    EXPECT_EQ(ReadMac("02:B0:5e:0a:0B:0c"), 0x02B05E0A0B0Cu);
    EXPECT_EQ(ReadEndpoint("192.168.77.1:50000"), (Platform::Simulated::Endpoint{0xC0A84D01, 50000}));
    EXPECT_EQ(ReadDecimal("2.5", 0, 100), 2.5);
    EXPECT_EQ(ReadDecimal("100", 0, 100), 100);
    EXPECT_EQ(ReadWhole("4096", 1, 4096), 4096u);
    EXPECT_EQ(ReadDelay("20"), std::pair(milliseconds(20), milliseconds(20)));
    EXPECT_EQ(ReadDelay("0-60000"), std::pair(milliseconds(0), milliseconds(60000)));
}

TEST(SimulateValues, AreRefusedWhenTheyAreNone) {
    for (const char* text : {"", "1", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.4 ", " 1.2.3.4", "01.2.3.4x", "::1"}) {
        EXPECT_FALSE(ReadAddress(text)) << text;
    }
    for (const char* text : {"", "0.0.0.0", "0.1.2.3", "224.0.0.1", "239.1.2.3", "255.255.255.255"}) {
        EXPECT_FALSE(ReadHostAddress(text)) << text;
    }
    for (const char* text : {"", "0.0.0.0", "255.0.255.0", "0.0.0.255", "/0", "33", "/", "/8/"}) {
        EXPECT_FALSE(ReadSubnetMask(text)) << text;
    }
    for (const char* text :
         {"", "02:00:00:00:00", "02:00:00:00:00:1", "02:00:00:00:00:1g", "02:00-00:00:00:01",
          "02:00:00:00:00:01:", "+2:00:00:00:00:01", "00:00:00:00:00:00", "01:00:5e:00:00:01", "ff:ff:ff:ff:ff:ff"}) {
        EXPECT_FALSE(ReadMac(text)) << text;
    }
    for (const char* text : {"", "1.2.3.4", "1.2.3.4:", "1.2.3.4:0", "1.2.3.4:65536", ":80", "host:80", "1.2.3.4:8x"}) {
        EXPECT_FALSE(ReadEndpoint(text)) << text;
    }
    for (const char* text : {"", "-", "x", "5x", "-5", "5-", "10-5", "0-60001", "1-2-3", "1.5"}) {
        EXPECT_FALSE(ReadDelay(text)) << text;
    }
    for (const char* text :
         {"", ":", "readreg", "readreg:", "readreg:0", "readreg:0x7fff", "readreg:0x10000", "readreg:nonsense",
          "read:busy", "readreg@:busy", "readreg@x:busy", "readreg@0x100000000:busy", "@0:busy"}) {
        EXPECT_FALSE(ReadErrorRule(text)) << text;
    }
}

TEST(SimulateValues, NameErrorsByNumberAndByName) {
    const auto byNumber = ReadErrorRule("readreg@0x0A00:0x8006");
    ASSERT_TRUE(byNumber);
    EXPECT_EQ(byNumber->command, MessageId::ReadRegCmd);
    EXPECT_EQ(byNumber->address, 0x0A00u);
    EXPECT_EQ(byNumber->status, Status::AccessDenied);
    const auto byName = ReadErrorRule("any:busy");
    ASSERT_TRUE(byName);
    EXPECT_EQ(byName->command, std::nullopt);
    EXPECT_EQ(byName->address, std::nullopt);
    EXPECT_EQ(byName->status, Status::Busy);
}

TEST(SimulationPlan, IsOneCameraOnLoopbackByDefault) {
    const SimulationPlan plan = MakeSimulationPlan({});
    ASSERT_THAT(plan.cameras, SizeIs(1));
    EXPECT_EQ(plan.cameras[0].address, 0x7F000002u);
    EXPECT_EQ(plan.cameras[0].subnetMask, 0xFF000000u);
    EXPECT_EQ(plan.cameras[0].mac, 0x02007F000002u);
    EXPECT_EQ(plan.cameras[0].serialNumber, "1");
}

TEST(SimulationPlan, CountsUpFromTheFirst) {
    SimulateOptions options;
    options.count = 3;
    options.address = "192.168.77.254";
    options.subnetMask = "255.255.0.0";
    options.mac = "02:00:00:00:00:ff";
    options.serial = "99";
    const SimulationPlan plan = MakeSimulationPlan(options);
    ASSERT_THAT(plan.cameras, SizeIs(3)) << plan.problem;
    EXPECT_EQ(plan.cameras[2].address, 0xC0A84E00u);
    EXPECT_EQ(plan.cameras[2].mac, 0x020000000101u);
    EXPECT_EQ(plan.cameras[0].serialNumber, "99");
    EXPECT_EQ(plan.cameras[2].serialNumber, "101");
}

TEST(SimulationPlan, GivesEachCameraWhatWasAskedFor) {
    SimulateOptions options;
    options.controlOwner = "192.168.77.9:1234";
    options.exclusive = true;
    options.delay = "10-20";
    options.pending = "300-500";
    options.lossPercent = 1.5;
    options.duplicatePercent = 2.5;
    options.errors = {"readmem:error", "any@0xA00:busy"};
    options.discoveryDelay = 500;
    options.name = "left one";
    const SimulationPlan plan = MakeSimulationPlan(options);
    ASSERT_THAT(plan.cameras, SizeIs(1)) << plan.problem;
    const auto& camera = plan.cameras[0];
    ASSERT_TRUE(camera.owner);
    EXPECT_EQ(camera.owner->endpoint.port, 1234);
    EXPECT_TRUE(camera.owner->exclusive);
    EXPECT_EQ(camera.faults.delayMinimum, milliseconds(10));
    EXPECT_EQ(camera.faults.delayMaximum, milliseconds(20));
    EXPECT_EQ(camera.faults.pendingActual, milliseconds(300));
    EXPECT_EQ(camera.faults.pendingAnnounced, milliseconds(500));
    EXPECT_EQ(camera.faults.lossPercent, 1.5);
    EXPECT_EQ(camera.faults.duplicatePercent, 2.5);
    EXPECT_THAT(camera.faults.errors, SizeIs(2));
    EXPECT_EQ(camera.discoveryDelay, 500);
    EXPECT_EQ(camera.userDefinedName, "left one");
}

struct ProblemRow {
    const char* name;
    SimulateOptions options;
    const char* problem;
};

std::ostream& operator<<(std::ostream& out, const ProblemRow& row) { return out << row.name; }

SimulateOptions Several(unsigned int count, const char* address, const char* mask, const char* mac,
                        const char* serial) {
    SimulateOptions options;
    options.count = count;
    options.address = address;
    options.subnetMask = mask;
    options.mac = mac;
    options.serial = serial;
    return options;
}

SimulateOptions ExclusiveByNobody() {
    SimulateOptions options;
    options.exclusive = true;
    return options;
}

class SimulationProblem : public ::testing::TestWithParam<ProblemRow> {};

TEST_P(SimulationProblem, IsNamed) {
    const SimulationPlan plan = MakeSimulationPlan(GetParam().options);
    EXPECT_THAT(plan.cameras, IsEmpty());
    EXPECT_THAT(plan.problem, HasSubstr(GetParam().problem));
}

INSTANTIATE_TEST_SUITE_P(
    Table, SimulationProblem,
    ::testing::Values(
        ProblemRow{"TooManyForTheSubnet", Several(255, "192.168.77.1", "", "", ""),
                   "--count 255: the subnet with mask 255.255.255.0 has fewer host addresses from 192.168.77.1 on"},
        ProblemRow{"NetworkAddress", Several(1, "192.168.77.0", "", "", ""), "--count 1: the subnet with mask"},
        ProblemRow{"BroadcastAddress", Several(1, "192.168.77.255", "", "", ""), "--count 1: the subnet with mask"},
        ProblemRow{"PastTheLastAddress", Several(3, "255.255.255.254", "128.0.0.0", "", ""),
                   "--count 3: the subnet with mask"},
        ProblemRow{"PastTheLastMac", Several(2, "", "", "fe:ff:ff:ff:ff:ff", ""), "--mac fe:ff:ff:ff:ff:ff"},
        ProblemRow{"SerialThatDoesNotCount", Several(2, "", "", "", "A17"), "--serial A17"},
        ProblemRow{"SerialWithZeros", Several(2, "", "", "", "007"), "--serial 007"},
        ProblemRow{"SerialPastItsField", Several(2, "", "", "", "9999999999999999"), "more than 16 digits"},
        ProblemRow{"ExclusiveByNobody", ExclusiveByNobody(), "--exclusive requires --ccp-owner"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SimulationPlan, TakesAnySerialForOneCamera) {
    EXPECT_EQ(MakeSimulationPlan(Several(1, "", "", "", "A17")).cameras.at(0).serialNumber, "A17");
    EXPECT_THAT(MakeSimulationPlan(Several(254, "192.168.77.1", "", "", "")).cameras, SizeIs(254));
    EXPECT_THAT(MakeSimulationPlan(Several(2, "192.168.77.0", "255.255.255.254", "", "")).cameras, SizeIs(2));
}

TEST(SimulateFormat, OfAMacHasLowerCaseOctets) { EXPECT_EQ(FormatMac(0x02B05E0A0B0C), "02:b0:5e:0a:0b:0c"); }

}  // namespace
}  // namespace Nimbrel2::Tool
