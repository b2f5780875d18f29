// SPDX-License-Identifier: Apache-2.0
// -v and --log: the library's trace with time and thread, beside the results and never in their way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::regex TestLine(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  \S.{14} [ \d]{6}  .*)");

ProgramResult RunOnDemo(Words words) {
    words.insert(words.begin(), RealProgram());
    return Nimbrel2::Testing::RunProgram(words, TestDeadline);
}

void ExpectTrace(const Words& lines) {
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::regex_match(line, TestLine)) << line;
    }
    EXPECT_THAT(lines, Contains(AllOf(HasSubstr("  nimbrel "), EndsWith("  Creating BusMaster"))));
    EXPECT_THAT(lines, Contains(AllOf(HasSubstr("  nimbrel-worker "), EndsWith("  Starting BusMaster worker thread"))));
    EXPECT_THAT(lines.back(), EndsWith("  exit status 0"));
}

class TraceLogFile : public ::testing::Test {
protected:
    std::string Read() const {
        std::ifstream file(path);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

private:
    Nimbrel2::Testing::TemporaryFile m_file;

protected:
    const std::string& path = m_file.GetPath();
};

TEST(Verbose, PrintsTheTraceToStandardErrorAndLeavesTheResultAlone) {
    const std::string plain = RunOnDemo({"list", "--demo"}).output;
    for (const Words& words : {Words{"list", "--demo", "-v"}, Words{"-v", "list", "--demo"},
                               Words{"list", "--verbose", "--demo"}, Words{"-v", "list", "-v", "--demo"}}) {
        const ProgramResult result = RunOnDemo(words);
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.output, plain);
        ExpectTrace(Lines(result.errors));
        std::string asked;
        for (const std::string& word : words) {
            asked += " " + word;
        }
        EXPECT_THAT(Lines(result.errors).front(), EndsWith("  nimbrel " NIMBREL2_VERSION ":" + asked));
    }
    EXPECT_THAT(RunOnDemo({"list", "--demo"}).errors, IsEmpty());
}

TEST(Verbose, SaysHowACommandFailedToo) {
    const ProgramResult result = RunOnDemo({"reset", "--demo", "-v", "4711"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(Lines(result.errors), Contains(HasSubstr("  exit status 1: ")));
    EXPECT_THAT(result.errors,
                AllOf(HasSubstr("4711"), EndsWith("`nimbrel doctor` finds out why a camera is not seen.\n")));
}

TEST_F(TraceLogFile, GetsTheTraceAndNothingGoesToStandardError) {
    const ProgramResult result = RunOnDemo({"list", "--demo", "--log", path});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    ExpectTrace(Lines(Read()));
}

TEST_F(TraceLogFile, IsAppendedTo) {
    ASSERT_EQ(RunOnDemo({"list", "--demo", "--log", path}).exitStatus, 0);
    const std::string first = Read();
    ASSERT_EQ(RunOnDemo({"--log", path, "topology", "--demo"}).exitStatus, 0);
    const std::string both = Read();
    EXPECT_EQ(both.substr(0, first.size()), first);
    ExpectTrace(Lines(both.substr(first.size())));
}

TEST_F(TraceLogFile, MayGetTheTraceBesideStandardError) {
    const ProgramResult result = RunOnDemo({"list", "--demo", "-v", "--log", path});
    ExpectTrace(Lines(Read()));
    ExpectTrace(Lines(result.errors));
}

TEST_F(TraceLogFile, ThatCannotBeWrittenFailsTheCommandAndIsNamed) {
    const ProgramResult result = RunOnDemo({"list", "--demo", "--log", path + "/below"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, AllOf(HasSubstr("--log"), HasSubstr(path + "/below")));
}

TEST_F(TraceLogFile, GivenTwiceIsWrongUsageUnlessItIsTheSame) {
    EXPECT_EQ(RunOnDemo({"--log", path, "list", "--demo", "--log", path}).exitStatus, 0);
    const ProgramResult result = RunOnDemo({"--log", path, "list", "--demo", "--log", path + "2"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_THAT(result.errors, HasSubstr("--log"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
