// SPDX-License-Identifier: Apache-2.0
// Lines of the trace: what stands in one, and what becomes of those that nobody reads. One thread.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "common/Trace.h"
#include "tools/nimbrel/TraceLog.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

// Standard error is a pipe while it lives, which the test reads when it likes.
class PipedStandardError {
public:
    PipedStandardError() : m_before(dup(STDERR_FILENO)) {
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
        m_reader = ends[0];
        dup2(ends[1], STDERR_FILENO);
        // A writer that does not look first would wait.
        fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) & ~O_NONBLOCK);
        close(ends[1]);
    }
    ~PipedStandardError() {
        dup2(m_before, STDERR_FILENO);
        close(m_before);
        close(m_reader);
        SetTraceSink(nullptr);
    }
    PipedStandardError(const PipedStandardError&) = delete;
    PipedStandardError& operator=(const PipedStandardError&) = delete;

    std::vector<std::string> ReadLines() const {
        std::string text;
        char buffer[4096];
        for (ssize_t size; (size = read(m_reader, buffer, sizeof buffer)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(size));
        }
        std::istringstream stream(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

private:
    const int m_before;
    int m_reader = -1;
};

TEST(TraceLog, LeavesLinesOutThatNobodyReadsAndSaysHowMany) {
    const PipedStandardError standardError;
    TraceLog::ToStandardError();
    constexpr std::size_t NumLines = 2000;  // more than a pipe takes
    for (std::size_t i = 0; i < NumLines; ++i) {
        Trace("A line of the trace that takes some room in a pipe.");
    }
    const std::vector<std::string> read = standardError.ReadLines();
    EXPECT_GT(read.size(), 10u);
    EXPECT_LT(read.size(), NumLines);
    Trace("The next.");
    const std::vector<std::string> after = standardError.ReadLines();
    ASSERT_EQ(after.size(), 2u);
    EXPECT_THAT(after[0], HasSubstr("(" + std::to_string(NumLines - read.size()) + " lines left out"));
    EXPECT_THAT(after[1], EndsWith("  The next."));
}

TEST(TraceLog, WritesALineForEachTextWhateverStandsInIt) {
    const PipedStandardError standardError;
    TraceLog::ToStandardError();
    Trace("ends itself\n");
    Trace("two\nlines \x1b[2J\x9b");
    Trace("");
    Trace(std::string(100000, 'x'));
    const std::vector<std::string> lines = standardError.ReadLines();
    ASSERT_EQ(lines.size(), 4u);
    const std::regex whole(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  \S.{14} [ \d]{6}  .*)");
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::regex_match(line.substr(0, 200), whole)) << line;
    }
    EXPECT_THAT(lines[0], EndsWith("  ends itself"));
    EXPECT_THAT(lines[1], AllOf(EndsWith("  two?lines ?[2J?"), Not(HasSubstr("\x1b"))));
    EXPECT_LE(lines[3].size(), 4096u);
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
