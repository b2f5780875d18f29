// SPDX-License-Identifier: Apache-2.0
// A whole computer in memory, for applications that are tried and tested without cameras.
#ifndef NIMBREL2_PLATFORM_SIMULATEDCOMPUTER_H
#define NIMBREL2_PLATFORM_SIMULATEDCOMPUTER_H

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "hal/Export.h"
#include "platform/Platform.h"

namespace Nimbrel2::Platform {

/// A computer as a rig file describes it, and what happens to it. `nimbrel rig demo` prints such a file, `nimbrel rig
/// schema` the JSON Schema of all that may stand in one, the actions included.
///
///     auto computer = SimulatedComputer::ReadFile("line.json");
///     Configure(computer.MakeOptions());       // before the bus master is first asked for
///     Singleton<BusMaster>::GetInstance().Initialize();
///     computer.Perform(R"({"unplug": "left camera"})");
///     WaitUntilEventsAreDelivered(std::chrono::seconds(1));
///     Singleton<BusMaster>::GetInstance().WaitUntilQuiet(1000);
///
/// Copies are the same computer. It lives as long as a copy or a running HAL uses it.
/// @par Threads  Any. No operation waits for the bus master.
/// @par Forks    A process that was forked after the object was made may destroy it, and nothing else.
class NIMBREL2_API SimulatedComputer {
public:
    /// @throws std::runtime_error "FILE: JSON POINTER: REASON" when the file is unreadable or describes no computer.
    /// Reads at most 16 MiB. The file's timeline is checked, not played: `nimbrel rig play` does that.
    static SimulatedComputer ReadFile(const std::string& path);
    /// The same for a text, which errors call by the name.
    static SimulatedComputer Parse(std::string_view json, const std::string& name);
    /// The computer that `nimbrel --demo` runs on.
    static SimulatedComputer BuiltIn();

    /// Options with all three buses on this computer; the others at their defaults.
    Options MakeOptions() const;

    /// Lets one action of a timeline happen now: {"unplug": "left camera"}, {"busReset": "fw0"}, …
    /// @throws std::runtime_error when the text is no action, or names what is not there;
    ///         std::logic_error when it cannot be done now, as plugging in what is plugged in. Nothing has happened
    ///         then.
    void Perform(std::string_view action);

private:
    struct State;

    explicit SimulatedComputer(std::shared_ptr<const State> state) : m_state(std::move(state)) {}

    std::shared_ptr<const State> m_state;
};

}  // namespace Nimbrel2::Platform

#endif
