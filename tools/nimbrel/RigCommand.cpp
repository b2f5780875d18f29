// SPDX-License-Identifier: Apache-2.0
// `nimbrel rig`: checks rig files and plays their timelines. Main thread only; no lock.
#include "tools/nimbrel/RigCommand.h"

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
#include "tools/nimbrel/EventPrinter.h"
#include "tools/nimbrel/EventQueue.h"
#include "tools/nimbrel/Interrupts.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using Platform::AwaitedEvent;
using Platform::RigPlan;
using Platform::RigStep;
using std::chrono::milliseconds;

// How long the system may take to act upon one step, and an awaited event may take to come, beyond what the rig's
// faults take.
constexpr milliseconds kPatience{10000};

// 127.0.0.1 is left to others.
constexpr std::uint32_t kFirstLoopbackAddress = 0x7F000002;

const char kBuiltIn[] = "the built-in rig";

const char kFooter[] =
    R"(A rig is a simulated computer in a JSON file: its buses, its cameras, and what
happens to them. Every command that looks at the buses takes --rig FILE.

Examples:
  nimbrel rig demo >my.json            a rig to begin with
  nimbrel rig check my.json            is it one? If not: where and why
  nimbrel rig play my.json             let it happen, and print the events
  nimbrel rig play --fast my.json      without waiting; for tests
  nimbrel rig serve my.json            its GigE cameras on loopback sockets, for
                                       `nimbrel list --interface lo` and others
  nimbrel list --rig my.json           what is attached before anything happens
)";

RigPlan Load(const std::optional<std::string>& file) {
    try {
        return file ? Platform::ReadRigFile(*file) : Platform::ParseRig(Platform::BuiltInRig(), kBuiltIn);
    } catch (const Platform::RigFileError& error) {
        throw CommandError(ForTerminal(error.what()));
    }
}

std::string Quantity(std::size_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// What is in the one and not in the other, both in ascending order, for people; empty when nothing is.
std::string Difference(const std::vector<std::uint32_t>& one, const std::vector<std::uint32_t>& other) {
    std::vector<std::uint32_t> difference;
    std::set_difference(one.begin(), one.end(), other.begin(), other.end(), std::back_inserter(difference));
    std::vector<std::string> words;
    for (const std::uint32_t serial : difference) words.push_back(std::to_string(serial));
    return words.empty() ? "" : Enumerate(words);
}

milliseconds DelayOfFaults(const RigPlan& plan) {
    milliseconds sum{0};
    for (const RigStep& step : plan.timeline) {
        if (const auto* const fault = std::get_if<Platform::RigFault>(&step.action)) sum += fault->delay;
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
          m_patience(fast ? kPatience : kPatience + DelayOfFaults(plan)) {}

    int Play() {
        m_interrupt = Interrupts::Catch();
        m_context.GetOutput().SetInterrupt(m_interrupt);
        const Clock::time_point start = Clock::now();
        for (const RigStep& step : m_plan.timeline) {
            if (step.at && !m_fast && !PrintUntil(start + *step.at)) return kDone;
            if (step.after && !WaitFor(*step.after, step.pointer + "/after")) return kDone;
            Announce(step);
            if (const std::optional<std::string> problem = Platform::Apply(m_rig, step.action)) {
                Fail(step.actionPointer, *problem);
            }
            if (m_fast && !Settle(step.actionPointer)) return kDone;
        }
        if (!Settle("/end")) return kDone;
        CheckEnd();
        return kDone;
    }

private:
    [[noreturn]] void Fail(const std::string& pointer, const std::string& reason) const {
        throw CommandError(ForTerminal(m_file + ": " + pointer + ": " + reason));
    }

    std::string Patience() const {
        return std::to_string(std::chrono::ceil<std::chrono::seconds>(m_patience).count()) + " s";
    }

    void Announce(const RigStep& step) {
        if (!m_context.WantsJson()) m_context.Print("-- " + ForTerminal(Platform::Describe(step.action)) + "\n");
    }

    // What happened is over when every event has been delivered and the bus master has acted upon all of them.
    bool Settle(const std::string& pointer) {
        const auto patience = static_cast<unsigned int>(m_patience.count());
        if (!Platform::WaitUntilEventsAreDelivered(m_patience) || !m_busMaster.WaitUntilQuiet(patience)) {
            Fail(pointer, "the bus master was still busy after " + Patience());
        }
        return PrintWaiting();
    }

    // False when nobody reads any more, or a signal came.
    bool PrintWaiting() {
        while (const std::optional<BusEvent> event = m_events.Take()) {
            m_seen.push_back(*event);
            if (!m_printer.Print(*event)) return false;
        }
        return !IsInterrupted(0);
    }

    bool IsInterrupted(int wait) const {
        std::array<pollfd, 2> waits{{{m_events.GetFd(), POLLIN, 0}, {m_interrupt, POLLIN, 0}}};
        return poll(waits.data(), waits.size(), wait) > 0 && waits[1].revents != 0;
    }

    // Prints events until that time. False when it is time to end.
    bool PrintUntil(Clock::time_point time) {
        while (PrintWaiting()) {
            const auto left = std::chrono::ceil<milliseconds>(time - Clock::now());
            if (left.count() <= 0) return true;
            if (IsInterrupted(static_cast<int>(left.count()))) return false;
        }
        return false;
    }

    // Takes the oldest event that fits and that no step before has taken; only that one, because callbacks run on
    // threads of their own and overtake each other. So it does not matter whether time is waited for.
    bool TakeSeen(const AwaitedEvent& awaited) {
        const auto found = std::find_if(m_seen.begin(), m_seen.end(), [&awaited](const BusEvent& event) {
            static constexpr BusCallbackType types[] = {BUS_RESET, ARRIVAL, REMOVAL};
            return event.type == types[static_cast<int>(awaited.kind)] &&
                   (!awaited.serialNumber || event.serialNumber == *awaited.serialNumber);
        });
        if (found == m_seen.end()) return false;
        m_seen.erase(found);
        return true;
    }

    bool WaitFor(const AwaitedEvent& awaited, const std::string& pointer) {
        if (m_fast) {
            if (!Settle(pointer)) return false;
            if (!TakeSeen(awaited)) Fail(pointer, "everything has come to rest without this event");
            return true;
        }
        const Clock::time_point deadline = Clock::now() + m_patience;
        while (PrintWaiting()) {
            if (TakeSeen(awaited)) return true;
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) Fail(pointer, "the event did not come within " + Patience());
            if (IsInterrupted(static_cast<int>(left.count()))) return false;
        }
        return false;
    }

    void CheckEnd() {
        std::vector<std::uint32_t> serials;
        for (const Camera& camera : ListCameras(m_busMaster)) serials.push_back(camera.serialNumber);
        std::sort(serials.begin(), serials.end());
        if (m_plan.finalSerialNumbers && serials != *m_plan.finalSerialNumbers) {
            const std::string missing = Difference(*m_plan.finalSerialNumbers, serials);
            const std::string tooMany = Difference(serials, *m_plan.finalSerialNumbers);
            Fail("/end/cameras", "the rig ends otherwise: " + (missing.empty() ? "" : "missing " + missing) +
                                     (missing.empty() || tooMany.empty() ? "" : "; ") +
                                     (tooMany.empty() ? "" : "too many " + tooMany));
        }
        if (!m_context.WantsJson()) {
            m_context.Print("-- the end: " + Quantity(serials.size(), "camera", "cameras") +
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
        AddFile(*m_context.AddCommand(rig, "check", "Tells whether a file is a rig, and if not, where and why.",
                                      [this] { return Check(); }),
                "The rig.")
            ->required();
        CLI::App* play = m_context.AddCommand(rig, "play", "Lets happen what the file says and prints the events.",
                                              [this] { return Play(); });
        AddFile(*play);
        play->add_flag("--fast", m_fast, "Wait for no time, only for each step to be over.");
        m_context.AddJsonOption(*play, "Print one JSON object a line, as watch does.");
        AddFile(*m_context.AddCommand(rig, "serve", "Puts the rig's GigE cameras on loopback sockets until Ctrl-C.",
                                      [this] { return Serve(); }));
        m_context.AddCommand(rig, "schema", "Prints the JSON Schema of rig files.", [this] {
            m_context.Print(std::string(Platform::RigSchema()));
            return static_cast<int>(kDone);
        });
        m_context.AddCommand(rig, "demo", "Prints the built-in rig.", [this] {
            m_context.Print(std::string(Platform::BuiltInRig()));
            return static_cast<int>(kDone);
        });
    }

private:
    CLI::Option* AddFile(CLI::App& command, const char* description = "The rig; without it the built-in one.") {
        return command.add_option_function<std::string>(
            "FILE", [this](const std::string& file) { m_file = file; }, description);
    }

    int Check() {
        const RigPlan plan = Load(m_file);
        const Platform::RigDescription& rig = plan.rig;
        m_context.Print(ForTerminal(*m_file) + ": a rig with " +
                        Quantity(rig.fireWire.size(), "FireWire bus", "FireWire buses") + ", " +
                        Quantity(rig.usb.size(), "USB host", "USB hosts") + ", " +
                        Quantity(rig.gigE.size(), "network interface", "network interfaces") + " and a timeline of " +
                        Quantity(plan.timeline.size(), "step", "steps") + ".\n");
        return kDone;
    }

    int Play() {
        RigPlan plan = Load(m_file);
        const auto rig = std::make_shared<Platform::Rig>(std::move(plan.rig));
        rig->SetFast(m_fast);
        m_context.UseRig(rig);
        EventQueue events;  // outlives the bus master, which calls it back
        const BusMasterSession busMaster = m_context.StartBusMaster();
        events.Register(*busMaster);
        return Player(m_context, m_file.value_or(kBuiltIn), plan, *rig, *busMaster, events, m_fast).Play();
    }

    int Serve() {
        const int interrupt = Interrupts::Catch();
        const RigPlan plan = Load(m_file);
        Platform::Simulated::SimulatedGigENetwork network;
        std::vector<Platform::LoopbackCamera> cameras;
        const std::string problem = Platform::PutOnLoopback(plan.rig, kFirstLoopbackAddress, &network, &cameras);
        if (!problem.empty()) throw CommandError(ForTerminal(problem));
        for (const Platform::LoopbackCamera& camera : cameras) {
            m_context.Print(FormatIp(UnpackIPAddress(camera.options.address)) + "  " + ForTerminal(camera.name) + "\n");
        }
        pollfd wait{interrupt, POLLIN, 0};
        while (poll(&wait, 1, -1) <= 0) {
        }
        return kDone;
    }

    CommandContext& m_context;
    std::optional<std::string> m_file;
    bool m_fast = false;
};

}  // namespace

void AddRigCommand(CLI::App& app, CommandContext& context) {
    const auto command = std::make_shared<RigCommand>(context);
    CLI::App* rig = app.add_subcommand("rig", "Checks and plays rigs: simulated computers.");
    rig->require_subcommand(1);
    rig->footer(kFooter);
    command->Declare(*rig);
    rig->callback([command] {});  // keeps it for as long as the command line
}

}  // namespace Nimbrel2::Tool
