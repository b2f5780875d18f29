// SPDX-License-Identifier: Apache-2.0
// The subcommand as a program in a namespace of the test's own: what it prints, how it ends, and that its cameras are
// seen by an independent program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class SimulateCommand : public ::testing::Test {
protected:
    static std::vector<std::string> Line(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {SIMULATE_COMMAND, "simulate", "gige"});
        return arguments;
    }

    std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& arguments) {
        return space.StartProgram(Line(arguments));
    }

    ProgramResult Run(const std::vector<std::string>& arguments) { return space.RunProgram(Line(arguments)); }

    NetworkNamespace space;
};

TEST_F(SimulateCommand, ShowsItsCameraAndEndsOnEitherSignal) {
    for (const int number : {SIGINT, SIGTERM}) {
        const auto program = Start({"--serial", "4711", "--name", "left one"});
        ASSERT_TRUE(program->WaitForOutput("\n", seconds(10))) << program->GetErrors();
        EXPECT_THAT(program->GetOutput(), HasSubstr("127.0.0.2"));
        EXPECT_THAT(program->GetOutput(), HasSubstr("02:00:7f:00:00:02"));
        EXPECT_THAT(program->GetOutput(), HasSubstr("serial 4711"));
        EXPECT_THAT(program->GetOutput(), HasSubstr("\"left one\""));
        program->Signal(number);
        EXPECT_EQ(program->WaitForExit(seconds(10)), 0);
        EXPECT_THAT(program->GetErrors(), IsEmpty());
    }
}

TEST_F(SimulateCommand, EndsAfterItsDuration) {
    const auto start = std::chrono::steady_clock::now();
    const ProgramResult result = Run({"--duration", "0.2"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(200));
}

TEST_F(SimulateCommand, PrintsOneJsonObjectALine) {
    const ProgramResult result = Run({"--count", "2", "--base-address", "127.0.5.1", "--json", "--duration", "0.05"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(
        result.output,
        R"({"serial":1,"serial_text":"1","mac":"02:00:7f:00:05:01","ip":"127.0.5.1","subnet":"255.0.0.0",)"
        R"("gateway":"0.0.0.0","network_interface":"lo","vendor":"Nimbrel","model":"Simulated GigE Camera","name":""})"
        "\n"
        R"({"serial":2,"serial_text":"2","mac":"02:00:7f:00:05:02","ip":"127.0.5.2","subnet":"255.0.0.0",)"
        R"("gateway":"0.0.0.0","network_interface":"lo","vendor":"Nimbrel","model":"Simulated GigE Camera","name":""})"
        "\n");
}

TEST_F(SimulateCommand, IsListedByAnIndependentProgram) {
    const auto program = Start({"--count", "200", "--vendor", "Maker", "--model", "Model"});
    ASSERT_TRUE(program->WaitForOutput("serial 200", seconds(20))) << program->GetErrors();
    const ProgramResult listed = space.RunProgram({"arv-tool-0.8"});
    EXPECT_THAT(listed.output, HasSubstr("Maker-Model-1 (127.0.0.2)"));
    EXPECT_THAT(listed.output, HasSubstr("Maker-Model-200 (127.0.0.201)"));
}

TEST_F(SimulateCommand, AddsAnAddressToANamedInterfaceAndTakesItAway) {
    space.Ip("link add d0 type bridge");
    space.Ip("link set d0 up");
    const auto program = Start({"--interface", "d0", "--address", "10.9.9.9"});
    ASSERT_TRUE(program->WaitForOutput("\n", seconds(10))) << program->GetErrors();
    EXPECT_THAT(program->GetOutput(), HasSubstr("d0"));
    EXPECT_THAT(space.RunProgram({"ip", "-o", "-4", "addr"}).output, HasSubstr("10.9.9.9/24"));
    program->Signal(SIGTERM);
    EXPECT_EQ(program->WaitForExit(seconds(10)), 0);
    EXPECT_THAT(space.RunProgram({"ip", "-o", "-4", "addr"}).output, Not(HasSubstr("10.9.9.9")));
}

TEST_F(SimulateCommand, FailsWithAddressAndReasonWhenItCannotBind) {
    const auto first = Start({});
    ASSERT_TRUE(first->WaitForOutput("\n", seconds(10)));
    const ProgramResult taken = Run({});
    EXPECT_EQ(taken.exitStatus, 1);
    EXPECT_THAT(taken.errors, HasSubstr("127.0.0.2: Address already in use"));
    EXPECT_THAT(taken.output, IsEmpty());

    const ProgramResult nowhere = Run({"--address", "192.0.2.1"});
    EXPECT_EQ(nowhere.exitStatus, 1);
    EXPECT_THAT(nowhere.errors, HasSubstr("192.0.2.1: no network interface has this address"));

    const ProgramResult noInterface = Run({"--interface", "nowhere0"});
    EXPECT_EQ(noInterface.exitStatus, 1);
    EXPECT_THAT(noInterface.errors, HasSubstr("nowhere0: no such network interface"));
}

TEST_F(SimulateCommand, FailsWhenStandardOutputIsFull) {
    const ProgramResult result =
        space.RunProgram({"sh", "-c", "exec " SIMULATE_COMMAND " simulate gige --count 2 --duration 10 >/dev/full"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("standard output cannot be written: No space left on device"));
}

TEST_F(SimulateCommand, EndsQuietlyWhenItsReaderIsGone) {
    for (const char* count : {"1", "200"}) {
        const ProgramResult result = space.RunProgram(
            {"sh", "-c",
             std::string("(" SIMULATE_COMMAND " simulate gige --count ") + count + "; echo $? >&2) | head -1"});
        EXPECT_THAT(result.output, HasSubstr("serial 1 "));
        EXPECT_EQ(result.errors, "0\n");
    }
}

TEST_F(SimulateCommand, KeepsIgnoringCtrlCInTheBackgroundOfAScript) {
    const auto shell =
        space.StartProgram({"sh", "-c", SIMULATE_COMMAND " simulate gige & echo pid $!; wait $!; echo status $?"});
    ASSERT_TRUE(shell->WaitForOutput("127.0.0.2", seconds(20))) << shell->GetErrors();
    ASSERT_TRUE(shell->WaitForOutput("pid ", seconds(20)));
    const std::string output = shell->GetOutput();
    const pid_t simulator = std::stoi(output.substr(output.find("pid ") + 4));
    ASSERT_EQ(kill(simulator, SIGINT), 0);
    EXPECT_FALSE(shell->WaitForOutput("status", milliseconds(300)));
}

struct UsageRow {
    const char* name;
    std::vector<std::string> arguments;
    const char* option;
    const char* value;
};

std::ostream& operator<<(std::ostream& out, const UsageRow& row) { return out << row.name; }

class SimulateUsage : public ::testing::TestWithParam<UsageRow> {};

TEST_P(SimulateUsage, IsRefusedByOptionAndValue) {
    std::vector<std::string> line{SIMULATE_COMMAND, "simulate", "gige"};
    line.insert(line.end(), GetParam().arguments.begin(), GetParam().arguments.end());
    const ProgramResult result = RunProgram(line);
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_THAT(result.errors, HasSubstr(GetParam().option));
    EXPECT_THAT(result.errors, HasSubstr(GetParam().value));
    EXPECT_THAT(result.output, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, SimulateUsage,
    ::testing::Values(
        UsageRow{"NoCamera", {"--count", "0"}, "--count", "0"},
        UsageRow{"ManyCameras", {"--count", "4097"}, "--count", "4097"},
        UsageRow{"CountInWords", {"--count", "two"}, "--count", "two"},
        UsageRow{"Address", {"--address", "1.2.3"}, "--address", "1.2.3"},
        UsageRow{"BaseAddress", {"--base-address", "a.b.c.d"}, "--base-address", "a.b.c.d"},
        UsageRow{"AddressOfAGroup", {"--address", "224.0.0.5"}, "--address", "224.0.0.5"},
        UsageRow{"AddressOfNobody", {"--base-address", "0.0.0.5"}, "--base-address", "0.0.0.5"},
        UsageRow{
            "BothAddresses", {"--address", "127.0.0.2", "--base-address", "127.0.0.3"}, "--base-address", "--address"},
        UsageRow{"Mac", {"--mac", "02:00"}, "--mac", "02:00"},
        UsageRow{"Mask", {"--mask", "255.0.255.0"}, "--mask", "255.0.255.0"},
        UsageRow{"Gateway", {"--gateway", "none"}, "--gateway", "none"},
        UsageRow{"Serial", {"--serial", "12345678901234567"}, "--serial", "12345678901234567"},
        UsageRow{"Name", {"--name", "a name that is too long"}, "--name", "a name that is too long"},
        UsageRow{"Owner", {"--ccp-owner", "10.0.0.1"}, "--ccp-owner", "10.0.0.1"},
        UsageRow{"ExclusiveAlone", {"--exclusive"}, "--exclusive", "--ccp-owner"},
        UsageRow{"Delay", {"--delay", "20-10"}, "--delay", "20-10"},
        UsageRow{"Pending", {"--pending", "soon"}, "--pending", "soon"},
        UsageRow{"DiscoveryDelay", {"--discovery-delay", "70000"}, "--discovery-delay", "70000"},
        UsageRow{"Loss", {"--loss", "101"}, "--loss", "101"},
        UsageRow{"Duplicate", {"--duplicate", "-1"}, "--duplicate", "-1"},
        UsageRow{"Error", {"--error", "readreg:fine"}, "--error", "readreg:fine"},
        UsageRow{"TwoErrorsForOneOption", {"--error", "any:busy", "readreg:busy"}, "readreg:busy", "expected"},
        UsageRow{"SecondError", {"--error", "any:busy", "--error", "any:fine"}, "--error", "any:fine"},
        UsageRow{"Seed", {"--seed", "x"}, "--seed", "x"}, UsageRow{"Duration", {"--duration", "0"}, "--duration", "0"},
        UsageRow{"DurationThatIsNoNumber", {"--duration", "nan"}, "--duration", "nan"},
        UsageRow{"SeveralWithOneSerial", {"--count", "2", "--serial", "A17"}, "--serial", "A17"},
        UsageRow{"Unknown", {"--colour", "red"}, "unknown option --colour", "nimbrel simulate gige --help"}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace Nimbrel2::Testing
