// SPDX-License-Identifier: Apache-2.0
// Runs the command line for tests. One thread a test; no lock.
#include "tests/tools/ToolFixture.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace Nimbrel2::Tool::Testing {
namespace {

[[noreturn]] void ThrowErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

}  // namespace

std::string RealProgram() { return NIMBREL_PROGRAM; }

ScriptedComputer::ScriptedComputer(const Words& lines) : m_folder("/tmp/nimbrel-test-XXXXXX") {
    if (mkdtemp(m_folder.data()) == nullptr) {
        ThrowErrno("mkdtemp");
    }
    m_script = m_folder + "/script";
    if (mkfifo(m_script.c_str(), 0600) != 0) {
        ThrowErrno("mkfifo");
    }
    // For reading too: it must open before the program does, and survive it.
    m_fd = open(m_script.c_str(), O_RDWR | O_CLOEXEC);
    if (m_fd < 0) {
        ThrowErrno(m_script);
    }
    for (const std::string& line : lines) {
        Do(line);
    }
    Do("start");
}

ScriptedComputer::~ScriptedComputer() {
    close(m_fd);
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

void ScriptedComputer::Do(const std::string& line) {
    const std::string text = line + "\n";
    if (write(m_fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        ThrowErrno("write");
    }
}

Words ScriptedComputer::CommandLine(const Words& arguments) const {
    Words words{NIMBREL_SCRIPTED_PROGRAM, m_script};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

std::string ScriptedComputer::ShellCommandLine(const std::string& arguments) const {
    return std::string(NIMBREL_SCRIPTED_PROGRAM) + " " + m_script + " " + arguments;
}

std::unique_ptr<ChildProcess> ScriptedComputer::Start(const Words& arguments) const {
    return std::make_unique<ChildProcess>(CommandLine(arguments));
}

ProgramResult ScriptedComputer::Run(const Words& arguments) const {
    return Nimbrel2::Testing::RunProgram(CommandLine(arguments), TestDeadline);
}

ProgramResult ScriptedComputer::RunWith(const Words& environment, const Words& arguments) const {
    Words words{"env"};
    words.insert(words.end(), environment.begin(), environment.end());
    const Words program = CommandLine(arguments);
    words.insert(words.end(), program.begin(), program.end());
    return Nimbrel2::Testing::RunProgram(words, TestDeadline);
}

ProgramResult RunReal(const Words& arguments) {
    Words words{RealProgram()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return Nimbrel2::Testing::RunProgram(words, TestDeadline);
}

RigComputer::RigComputer(const std::string& json) {
    std::ofstream file(m_file.GetPath());
    if (!(file << json << std::flush)) {
        ThrowErrno(m_file.GetPath());
    }
}

ProgramResult RigComputer::Run(const Words& arguments) const {
    Words words{NIMBREL_ON_RIG_PROGRAM, m_file.GetPath()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return Nimbrel2::Testing::RunProgram(words, TestDeadline);
}

std::string RigComputer::ShellCommandLine(const std::string& arguments) const {
    return std::string(NIMBREL_ON_RIG_PROGRAM) + " " + m_file.GetPath() + " " + arguments;
}

int EndBy(int signal, ChildProcess& program) {
    program.Signal(signal);
    return program.WaitForExit(TestDeadline);
}

std::vector<Json> ParseLines(const std::string& text) {
    std::vector<Json> objects;
    for (const std::string& line : Lines(text)) {
        objects.push_back(Json::parse(line));
    }
    return objects;
}

Words Lines(const std::string& text) {
    Words lines;
    std::istringstream stream(text.substr(0, text.find_last_of('\n') + 1));
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace Nimbrel2::Tool::Testing
