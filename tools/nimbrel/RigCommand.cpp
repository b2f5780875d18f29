// SPDX-License-Identifier: Apache-2.0
// `nimbrel rig`: checks rig files and plays their timelines. Main thread only; no lock.
#include <poll.h>

#include <algorithm>
#include <array>
#include <deque>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/rig/RigFile.h"
#include "platform/rig/RigLoopback.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/EventPrinter.h"
#include "tools/nimbrel/EventQueue.h"
#include "tools/nimbrel/Interrupts.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using Platform::AwaitedEvent;
using Platform::RigPlan;
using Platform::RigStep;
using std::chrono::milliseconds;

// How long one step may take, and an awaited event may take to arrive, in addition to the delays of faults.
constexpr milliseconds ShortestPatience{10000};

// 127.0.0.1 is left to other programs.
constexpr std::uint32_t FirstLoopbackAddress = 0x7F000002;

const char BuiltInName[] = "the built-in rig";

const char Footer[] =
    R"(A rig is a simulated computer in a JSON file: its buses, its cameras and what
happens to them. Every command that looks at the buses takes --rig FILE.

Exit status:
  0  Done.
  1  Failed: the file is not a rig, or a play ended otherwise than the file
     says; standard error names the place in the file.
  2  Wrong usage; standard error names the option and the value.
A play that a signal ends has that signal's status (Ctrl-C: 130).

Examples:
  nimbrel rig demo >my.json            a rig to start from
  nimbrel rig check my.json            check it; errors name the place
  nimbrel rig play my.json             play its timeline and print the events
  nimbrel rig play --fast my.json      the same without waiting, for tests
  nimbrel rig serve my.json            put its GigE cameras on loopback sockets,
                                       for `nimbrel list --interface lo`
  nimbrel list --rig my.json           what is attached before the timeline
)";

RigPlan Load(const std::optional<std::string>& file) {
    try {
        return file ? Platform::ReadRigFile(*file) : Platform::ParseRig(Platform::BuiltInRig(), BuiltInName);
    } catch (const Platform::RigFileError& error) {
        throw CommandError(ForTerminal(error.what()));
    }
}

// The elements of the first list that are missing in the second, both sorted, for people; empty if there are none.
std::string Difference(const std::vector<std::uint32_t>& one, const std::vector<std::uint32_t>& other) {
    std::vector<std::uint32_t> difference;
    std::set_difference(one.begin(), one.end(), other.begin(), other.end(), std::back_inserter(difference));
    std::vector<std::string> words;
    for (const std::uint32_t serial : difference) {
        words.push_back(std::to_string(serial));
    }
    return words.empty() ? "" : Enumerate(words);
}

milliseconds DelayOfFaults(const RigPlan& plan) {
    milliseconds sum{0};
    for (const RigStep& step : plan.timeline) {
        if (const auto* const fault = std::get_if<Platform::RigFault>(&step.action)) {
            sum += fault->delay;
        }
    }
    return sum;
}

// Plays one timeline on a bus master that runs on the rig.
class Player {
public:
    Player(CommandContext& context, std::string file, const RigPlan& plan, Platform::Rig& rig, BusMaster& busMaster,
           EventQueue& events, bool fast)
        : m_context(context),
          m_file(std::move(file)),
          m_plan(plan),
          m_rig(rig),
          m_busMaster(busMaster),
          m_events(events),
          m_printer(context, busMaster),
          m_fast(fast),
          m_patience(fast ? ShortestPatience : ShortestPatience + DelayOfFaults(plan)) {}

    int Play() {
        m_interrupt = Interrupts::Catch(Interrupts::End::BySignal);
        m_context.GetOutput().SetInterrupt(m_interrupt);
        // A reader that has gone ends the play with 0, a signal with its own status.
        return PlaySteps() ? static_cast<int>(ExitDone) : Interrupts::GetExitStatus();
    }

private:
    // False when the play was cut short.
    bool PlaySteps() {
        const Clock::time_point start = Clock::now();
        for (const RigStep& step : m_plan.timeline) {
            if (step.at && !m_fast && !PrintUntil(start + *step.at)) {
                return false;
            }
            if (step.after && !WaitFor(*step.after, step.pointer + "/after")) {
                return false;
            }
            Announce(step);
            if (const std::optional<std::string> problem = Platform::Apply(m_rig, step.action)) {
                Fail(step.actionPointer, *problem);
            }
            if (m_fast && !Settle(step.actionPointer)) {
                return false;
            }
        }
        if (!Settle("/end")) {
            return false;
        }
        CheckEnd();
        return true;
    }

    [[noreturn]] void Fail(const std::string& pointer, const std::string& reason) const {
        throw CommandError(ForTerminal(m_file + ": " + pointer + ": " + reason));
    }

    std::string Patience() const {
        return std::to_string(std::chrono::ceil<std::chrono::seconds>(m_patience).count()) + " s";
    }

    void Announce(const RigStep& step) {
        if (!m_context.WantsJson()) {
            m_context.Print("-- " + ForTerminal(Platform::Describe(step.action)) + "\n");
        }
    }

    // Waits until every event has been delivered and the bus master has handled all of them.
    bool Settle(const std::string& pointer) {
        const auto patience = static_cast<unsigned int>(m_patience.count());
        if (!Platform::WaitUntilEventsAreDelivered(m_patience) || !m_busMaster.WaitUntilQuiet(patience)) {
            Fail(pointer, "the bus master was still busy after " + Patience());
        }
        return PrintWaiting();
    }

    // Prints the queued events. False when the reader is gone or a signal came.
    bool PrintWaiting() {
        while (const std::optional<BusEvent> event = m_events.Take()) {
            m_seen.push_back(*event);
            if (!m_printer.Print(*event)) {
                return false;
            }
        }
        return !IsInterrupted(0);
    }

    bool IsInterrupted(int wait) const {
        std::array<pollfd, 2> waits{{{m_events.GetFd(), POLLIN, 0}, {m_interrupt, POLLIN, 0}}};
        return poll(waits.data(), waits.size(), wait) > 0 && waits[1].revents != 0;
    }

    // Prints events until that time. False when the play is cut short.
    bool PrintUntil(Clock::time_point time) {
        while (PrintWaiting()) {
            const auto left = std::chrono::ceil<milliseconds>(time - Clock::now());
            if (left.count() <= 0) {
                return true;
            }
            if (IsInterrupted(static_cast<int>(left.count()))) {
                return false;
            }
        }
        return false;
    }

    // Takes the oldest matching event that no earlier step has taken, and only that one: callbacks run on threads of
    // their own and overtake each other. So fast plays and others find the same events.
    bool TakeSeen(const AwaitedEvent& awaited) {
        const auto found = std::find_if(m_seen.begin(), m_seen.end(), [&awaited](const BusEvent& event) {
            static constexpr BusCallbackType types[] = {BUS_RESET, ARRIVAL, REMOVAL};
            return event.type == types[static_cast<int>(awaited.kind)] &&
                   (!awaited.serialNumber || event.serialNumber == *awaited.serialNumber);
        });
        if (found == m_seen.end()) {
            return false;
        }
        m_seen.erase(found);
        return true;
    }

    bool WaitFor(const AwaitedEvent& awaited, const std::string& pointer) {
        if (m_fast) {
            if (!Settle(pointer)) {
                return false;
            }
            if (!TakeSeen(awaited)) {
                Fail(pointer, "this event did not happen");
            }
            return true;
        }
        const Clock::time_point deadline = Clock::now() + m_patience;
        while (PrintWaiting()) {
            if (TakeSeen(awaited)) {
                return true;
            }
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                Fail(pointer, "this event did not happen within " + Patience());
            }
            if (IsInterrupted(static_cast<int>(left.count()))) {
                return false;
            }
        }
        return false;
    }

    void CheckEnd() {
        std::vector<std::uint32_t> serials;
        for (const Camera& camera : ListCameras(m_busMaster)) {
            serials.push_back(camera.serialNumber);
        }
        std::sort(serials.begin(), serials.end());
        if (m_plan.finalSerialNumbers && serials != *m_plan.finalSerialNumbers) {
            const std::string missing = Difference(*m_plan.finalSerialNumbers, serials);
            const std::string extra = Difference(serials, *m_plan.finalSerialNumbers);
            Fail("/end/cameras", "the final state differs: " + (missing.empty() ? "" : "missing " + missing) +
                                     (missing.empty() || extra.empty() ? "" : "; ") +
                                     (extra.empty() ? "" : "unexpected " + extra));
        }
        if (!m_context.WantsJson()) {
            m_context.Print("-- end: " + CountOf(serials.size(), "camera") +
                            (m_plan.finalSerialNumbers ? ", as the file says\n" : "\n"));
        }
    }

    CommandContext& m_context;
    const std::string m_file;
    const RigPlan& m_plan;
    Platform::Rig& m_rig;
    BusMaster& m_busMaster;
    EventQueue& m_events;
    EventPrinter m_printer;
    const bool m_fast;
    const milliseconds m_patience;
    int m_interrupt = -1;
    std::deque<BusEvent> m_seen;  // That no step has taken.
};

class RigCommand {
public:
    explicit RigCommand(CommandContext& context) : m_context(context) {}

    void Declare(CLI::App& rig) {
        AddFile(*m_context.AddCommand(rig, "check", "Checks a rig file.", [this] { return Check(); }), "Rig file.")
            ->required();
        CLI::App* play = m_context.AddCommand(rig, "play", "Plays the timeline of a rig and prints the events.",
                                              [this] { return Play(); });
        AddFile(*play);
        play->add_flag("--fast", m_fast, "Do not wait for times, only for each step to\ncomplete.");
        m_context.AddJsonOption(*play, "Print one JSON object per line, as watch does.");
        AddFile(*m_context.AddCommand(rig, "serve", "Puts the GigE cameras of a rig on loopback sockets.",
                                      [this] { return Serve(); }));
        m_context.AddCommand(rig, "schema", "Prints the JSON Schema of rig files.", [this] {
            m_context.Print(std::string(Platform::RigSchema()));
            return static_cast<int>(ExitDone);
        });
        m_context.AddCommand(rig, "demo", "Prints the built-in rig.", [this] {
            m_context.Print(std::string(Platform::BuiltInRig()));
            return static_cast<int>(ExitDone);
        });
    }

private:
    CLI::Option* AddFile(CLI::App& command, const char* description = "Rig file. Default: the built-in rig.") {
        return command
            .add_option_function<std::string>(
                "FILE", [this](const std::string& file) { m_file = file; }, description)
            ->type_name("");
    }

    int Check() {
        const RigPlan plan = Load(m_file);
        const Platform::RigDescription& rig = plan.rig;
        m_context.Print(
            ForTerminal(*m_file) + ": a rig with " +
            (rig.fireWire.size() == 1 ? "1 FireWire bus" : std::to_string(rig.fireWire.size()) + " FireWire buses") +
            ", " + CountOf(rig.usb.size(), "USB host") + ", " + CountOf(rig.gigE.size(), "network interface") +
            " and a timeline of " + CountOf(plan.timeline.size(), "step") + ".\n");
        return ExitDone;
    }

    int Play() {
        RigPlan plan = Load(m_file);
        const auto rig = std::make_shared<Platform::Rig>(std::move(plan.rig));
        rig->SetFast(m_fast);
        m_context.UseRig(rig);
        int status = ExitDone;
        {
            EventQueue events;  // outlives the bus master, which calls it back
            const BusMasterSession busMaster = m_context.StartBusMaster();
            events.Register(*busMaster);
            status = Player(m_context, m_file.value_or(BuiltInName), plan, *rig, *busMaster, events, m_fast).Play();
        }
        if (status == ExitDone) {
            WarnOfFaultsLeft(*rig);
        }
        return status;
    }

    // A fault that never happened makes a test that passes for the wrong reason.
    void WarnOfFaultsLeft(const Platform::Rig& rig) const {
        for (const Platform::RigFault& fault : rig.GetFaultsLeft()) {
            WriteError(ForTerminal("nimbrel rig play: warning: " + m_file.value_or(BuiltInName) + ": the fault of " +
                                   fault.function + " did not happen: " + CountOf(fault.call, "more call") +
                                   " needed") +
                       "\n");
        }
    }

    int Serve() {
        const int interrupt = Interrupts::Catch(Interrupts::End::Orderly);
        const RigPlan plan = Load(m_file);
        Platform::Simulated::SimulatedGigENetwork network;
        std::vector<Platform::LoopbackCamera> cameras;
        const std::string problem = Platform::PutOnLoopback(plan.rig, FirstLoopbackAddress, &network, &cameras);
        if (!problem.empty()) {
            throw CommandError(ForTerminal(problem));
        }
        m_context.GetOutput().SetInterrupt(interrupt);
        for (const Platform::LoopbackCamera& camera : cameras) {
            m_context.Print(FormatIp(UnpackIPAddress(camera.options.address)) + "  " + ForTerminal(camera.name) + "\n");
        }
        m_context.GetOutput().WaitForEnd(interrupt);
        return ExitDone;
    }

    CommandContext& m_context;
    std::optional<std::string> m_file;
    bool m_fast = false;
};

}  // namespace

void AddRigCommand(CLI::App& app, CommandContext& context) {
    const auto command = std::make_shared<RigCommand>(context);
    CLI::App* rig = app.add_subcommand("rig", "Checks and plays simulated computers.");
    rig->require_subcommand(1);
    rig->footer(Footer);
    command->Declare(*rig);
    rig->callback([command] {});  // keeps it alive as long as the command line
}

}  // namespace Nimbrel2::Tool
