// SPDX-License-Identifier: Apache-2.0
// The progress line: on a terminal only, and gone when the wait is.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// A terminal whose screen the test is.
class Terminal {
public:
    explicit Terminal(unsigned short columns) : m_fd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        std::array<char, 64> name{};
        EXPECT_EQ(grantpt(m_fd), 0);
        EXPECT_EQ(unlockpt(m_fd), 0);
        EXPECT_EQ(ptsname_r(m_fd, name.data(), name.size()), 0);
        m_name = name.data();
        winsize size{};
        size.ws_row = 24;
        size.ws_col = columns;
        EXPECT_EQ(ioctl(m_fd, TIOCSWINSZ, &size), 0);
    }
    ~Terminal() { close(m_fd); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    const std::string& GetName() const { return m_name; }

    /// Reads until the text has come. @return all that has come so far.
    std::string ReadUntil(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + TestDeadline;
        while (m_text.find(text) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            if (!ReadSome(100) && m_closed) {
                break;
            }
        }
        return m_text;
    }

    /// Everything, once no program has the terminal open any more.
    std::string ReadToEnd() {
        const auto deadline = std::chrono::steady_clock::now() + TestDeadline;
        while (!m_closed && std::chrono::steady_clock::now() < deadline) {
            ReadSome(100);
        }
        return m_text;
    }

private:
    bool ReadSome(int patience) {
        pollfd wait{m_fd, POLLIN, 0};
        if (poll(&wait, 1, patience) <= 0) {
            return false;
        }
        std::array<char, 4096> buffer;
        const ssize_t size = read(m_fd, buffer.data(), buffer.size());
        m_closed = size <= 0;
        if (size > 0) {
            m_text.append(buffer.data(), static_cast<std::size_t>(size));
        }
        return size > 0;
    }

    const int m_fd;
    std::string m_name;
    std::string m_text;
    bool m_closed = false;
};

// The program with its standard error on the terminal.
template <class Computer>
std::unique_ptr<ChildProcess> StartOn(const Terminal& terminal, const Computer& computer, const std::string& arguments,
                                      const std::string& environment = "TERM=xterm") {
    return std::make_unique<ChildProcess>(
        Words{"sh", "-c", environment + " exec " + computer.ShellCommandLine(arguments) + " 2>" + terminal.GetName()});
}

TEST(Progress, IsShownOnATerminalAndWipedAfterwards) {
    ScriptedComputer computer({"hold gige"});
    Terminal terminal(80);
    const auto list = StartOn(terminal, computer, "list --json");
    // A busy computer shows it late, and not each tenth of a second.
    EXPECT_THAT(terminal.ReadUntil("\r/ Discovering GigE cameras ... "),
                ContainsRegex("[|] Discovering GigE cameras [.][.][.] [0-9]+[.][0-9] s\033\\[K\r/ Discovering GigE"));
    computer.Do("release gige");
    EXPECT_EQ(list->WaitForExit(TestDeadline), 0);
    EXPECT_THAT(terminal.ReadToEnd(), EndsWith("\r\033[K"));
    EXPECT_EQ(Json::parse(list->GetOutput()).size(), 3u);
}

TEST(Progress, ShowsWhatHasBeenHeardSoFar) {
    ScriptedComputer computer({"hold gige", R"(gige 1 10.0.0.1 Mill\x1b Drill)"});
    Terminal terminal(120);
    const auto list = StartOn(terminal, computer, "list", "LC_ALL=C TERM=xterm");
    EXPECT_THAT(terminal.ReadUntil("10.0.0.1 Mill? Drill"), HasSubstr(" s: 1 heard: 10.0.0.1 Mill? Drill\033[K"));
    computer.Do("gige 2 10.0.0.2 Mill Saw");
    EXPECT_THAT(terminal.ReadUntil("10.0.0.2"), HasSubstr("2 heard: 10.0.0.1 Mill? Drill, 10.0.0.2 Mill Saw\033[K"));
    EXPECT_THAT(list->GetOutput(), IsEmpty()) << "the table comes once, whole";
    computer.Do("release gige");
    EXPECT_EQ(list->WaitForExit(TestDeadline), 0);
    EXPECT_THAT(list->GetOutput(), HasSubstr("2 cameras"));
}

TEST(Progress, IsWipedWhenASignalEndsTheProgram) {
    const ScriptedComputer computer({"hold gige"});
    Terminal terminal(80);
    const auto list = StartOn(terminal, computer, "list");
    terminal.ReadUntil("Discovering");
    list->Signal(SIGINT);
    EXPECT_EQ(list->WaitForExit(TestDeadline), 128 + SIGINT);
    EXPECT_THAT(terminal.ReadToEnd(), EndsWith("\r\033[K"));
}

TEST(Progress, TellsWhoIsWaitedFor) {
    ScriptedComputer computer({"usb 1 480 V M"});
    Terminal terminal(80);
    const auto list = StartOn(terminal, computer, "list --wait 1,2,3");
    EXPECT_THAT(terminal.ReadUntil("Waiting for cameras 2 and 3 ... "), HasSubstr("Waiting for cameras 2 and 3 ... "));
    computer.Do("usb 2 480 V M");
    EXPECT_THAT(terminal.ReadUntil("Waiting for camera 3 ... "), HasSubstr("Waiting for camera 3 ... "));
    computer.Do("usb 3 480 V M");
    EXPECT_EQ(list->WaitForExit(TestDeadline), 0);
    EXPECT_THAT(terminal.ReadToEnd(), EndsWith("\r\033[K"));
}

TEST(Progress, IsShownWhileACameraTakesItsAddress) {
    const RigComputer rig(
        R"({"gige": [{"name": "eth0", "address": "192.168.77.1/24", "cameras": [
             {"name": "a", "mac": "02:00:00:00:09:01", "address": "10.9.9.9/24", "serial": "1"}]}],
            "timeline": [{"fault": {"function": "HAL_GvcpForceIp", "call": 1, "delayMs": 1500}}]})");
    Terminal terminal(80);
    const auto force = StartOn(terminal, rig, "force-ip --mac 02:00:00:00:09:01 --ip 192.168.77.20");
    EXPECT_EQ(force->WaitForExit(TestDeadline), 0);
    EXPECT_THAT(terminal.ReadToEnd(), ::testing::AllOf(HasSubstr("Waiting for 02:00:00:00:09:01 at 192.168.77.20 ... "),
                                                       EndsWith("\r\033[K")));
}

TEST(Progress, NeverWrapsInANarrowTerminal) {
    const ScriptedComputer computer({"hold gige"});
    Terminal terminal(12);
    const auto list = StartOn(terminal, computer, "list");
    EXPECT_THAT(terminal.ReadUntil("| Discov..."), HasSubstr("\r| Discov...\033[K"));
    list->Signal(SIGINT);
    EXPECT_EQ(list->WaitForExit(TestDeadline), 128 + SIGINT);
}

TEST(Progress, IsNotShownWhereItCannotBeWiped) {
    ScriptedComputer computer;
    Terminal terminal(80);
    const auto list = StartOn(terminal, computer, "list --wait 9 --timeout 0.6", "TERM=dumb");
    EXPECT_EQ(list->WaitForExit(TestDeadline), 1);
    EXPECT_THAT(terminal.ReadToEnd(), Not(HasSubstr("Waiting")));
}

TEST(Progress, IsNotShownInAPipe) {
    const ProgramResult result = ScriptedComputer().Run({"list", "--wait", "9", "--timeout", "0.6"});
    EXPECT_EQ(result.errors,
              "nimbrel list: after 0.6 s still missing: camera 9\n"
              "`nimbrel list` shows what is attached; `nimbrel doctor` finds out why a camera is not seen.\n");
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
