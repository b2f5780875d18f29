// SPDX-License-Identifier: Apache-2.0
// Runs the command line as users do, on scripted buses or on the real ones. One thread a test; no lock.
#ifndef NIMBREL2_TESTS_TOOLS_TOOLFIXTURE_H
#define NIMBREL2_TESTS_TOOLS_TOOLFIXTURE_H

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/PacketCapture.h"

namespace Nimbrel2::Tool::Testing {

using Json = nlohmann::ordered_json;
using Words = std::vector<std::string>;
using Nimbrel2::Testing::ChildProcess;
using Nimbrel2::Testing::ProgramResult;

/// Longer than anything takes on a busy machine, and the end of a test that goes wrong.
constexpr std::chrono::seconds TestDeadline{30};

/// The program on the buses of this computer.
std::string RealProgram();

/// A computer whose buses a script plays: lines before the program starts, and more while it runs.
class ScriptedComputer {
public:
    /// @throws std::system_error
    explicit ScriptedComputer(const Words& lines = {});
    ~ScriptedComputer();

    ScriptedComputer(const ScriptedComputer&) = delete;
    ScriptedComputer& operator=(const ScriptedComputer&) = delete;

    /// Something happens on the buses.
    void Do(const std::string& line);

    /// The words that run the program on this computer.
    Words CommandLine(const Words& arguments) const;
    /// The same as a shell takes them.
    std::string ShellCommandLine(const std::string& arguments) const;

    std::unique_ptr<ChildProcess> Start(const Words& arguments) const;
    ProgramResult Run(const Words& arguments) const;
    /// With variables of the environment, "NAME=value".
    ProgramResult RunWith(const Words& environment, const Words& arguments) const;

private:
    std::string m_folder;
    std::string m_script;
    int m_fd = -1;
};

/// The program on this computer, or on whatever its arguments name.
ProgramResult RunReal(const Words& arguments);

/// A simulated computer to which the whole timeline of its rig has happened: its faults wait for the program.
class RigComputer {
public:
    /// @throws std::system_error
    explicit RigComputer(const std::string& json);

    ProgramResult Run(const Words& arguments) const;
    /// What a shell takes to run the program.
    std::string ShellCommandLine(const std::string& arguments) const;
    /// Where the rig stands, for --rig.
    const std::string& GetPath() const { return m_file.GetPath(); }

private:
    Nimbrel2::Testing::TemporaryFile m_file;
};

/// Sends a signal. @return the exit status of the program; that of SIGKILL when the signal does not end it.
int EndBy(int signal, ChildProcess& program);

/// The complete lines of a text, parsed as a JSON object each.
std::vector<Json> ParseLines(const std::string& text);

/// Lines without their line feeds.
Words Lines(const std::string& text);

}  // namespace Nimbrel2::Tool::Testing

#endif
