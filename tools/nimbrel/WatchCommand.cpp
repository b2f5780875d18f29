// SPDX-License-Identifier: Apache-2.0
// `nimbrel watch`: prints the events of the bus master. Its callbacks only queue; the main thread prints. No lock.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/EventPrinter.h"
#include "tools/nimbrel/EventQueue.h"
#include "tools/nimbrel/Interrupts.h"
#include "tools/nimbrel/UnseenFireWire.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds LongestDuration = std::chrono::hours(24 * 365);

const char Footer[] =
    R"(Prints one line per event. Ends after --count events, after --duration, on
Ctrl-C, SIGTERM or SIGHUP, or when its reader goes away. A line on standard
error says when watching begins. Events of the same instant come in no
particular order.

Exit status:
  0  Ended in one of these ways.
  1  Failed, or a bus or network interface was not searched; standard error
     says why.
  2  Wrong usage; standard error names the option and the value.
  A signal during the first discovery ends it at once (Ctrl-C: status 130).

JSON: one object per line, {"event":"reset"|"arrival"|"removal","serial",
"generation","time","guid","interface","vendor","model","ip"}. "generation"
counts how often that camera has come or gone since the start; "time" is UTC.
Resets have serial 0 and generation 0, and nothing after "time"; "ip" is on GigE
only.

Examples:
  nimbrel watch                                   until Ctrl-C
  nimbrel watch --bus gige --interface eth1 --json >>cameras.log
  nimbrel watch --duration 60                     for a minute
  nimbrel watch --count 1                         until the next event
)";

class WatchCommand {
public:
    explicit WatchCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_context.AddJsonOption(command, "Print one JSON object per line.");
        CommandContext::AddValue(command, "--count", "N", "End after N events.",
                                 [this](const std::string& text) { m_count = ParseCount("--count", text); });
        CommandContext::AddValue(command, "--duration", "SECONDS", "End after this time of watching.",
                                 [this](const std::string& text) {
                                     m_duration = ParseSeconds("--duration", text, milliseconds(0), LongestDuration);
                                 });
        m_context.AddBusOptions(command);
    }

    int Run() {
        EventQueue events;  // outlives the bus master, which calls it back
        const BusMasterSession busMaster = m_context.StartBusMaster();
        m_interrupt = Interrupts::Catch(Interrupts::End::Orderly);
        m_context.GetOutput().SetInterrupt(m_interrupt);
        const bool healthy = m_context.CheckBuses(*busMaster);
        events.Register(*busMaster);
        EventPrinter printer(m_context, *busMaster);
        const std::size_t present = printer.GetNumCameras();
        m_context.NoteFilters("watch");
        m_context.NoteBusesWithoutDriver("watch");
        WriteError("Watching " + m_context.DescribeBuses() + ": " + CountOf(present, "camera") +
                   " now. Ctrl-C ends.\n");
        WarnOfUnseenFireWire(Shown::Resets);
        if (m_duration) {
            m_end = Clock::now() + *m_duration;
        }
        while (PrintEvents(events, printer) && WaitForEvent(events)) {
        }
        return healthy ? ExitDone : ExitFailed;
    }

private:
    // False when it is time to end.
    bool PrintEvents(EventQueue& events, EventPrinter& printer) {
        while (const std::optional<BusEvent> event = events.Take()) {
            if (!printer.Print(*event) || ++m_printed == m_count) {
                return false;
            }
        }
        if (const std::uint64_t lost = events.TakeLost()) {
            WriteError("nimbrel watch: " + CountOf(lost, "event") +
                       " lost: the reader of standard output is too slow.\n");
        }
        return true;
    }

    // False when it is time to end: on a signal, after --duration, or because the reader is gone.
    bool WaitForEvent(EventQueue& events) const {
        // No events requested: errors and hang-ups are always reported.
        std::array<pollfd, 3> waits{{{events.GetFd(), POLLIN, 0}, {m_interrupt, POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
        int patience = -1;
        if (m_end) {
            const auto left = std::chrono::ceil<milliseconds>(*m_end - Clock::now());
            if (left.count() <= 0) {
                return false;
            }
            patience = static_cast<int>(std::min<milliseconds::rep>(left.count(), 1'000'000'000));
        }
        if (poll(waits.data(), waits.size(), patience) <= 0) {
            return true;
        }
        return waits[1].revents == 0 && (waits[2].revents & (POLLERR | POLLHUP)) == 0;
    }

    CommandContext& m_context;
    std::uint64_t m_count = 0;  // 0: unlimited
    std::optional<milliseconds> m_duration;
    std::optional<Clock::time_point> m_end;
    std::uint64_t m_printed = 0;
    int m_interrupt = -1;
};

}  // namespace

void AddWatchCommand(CLI::App& app, CommandContext& context) {
    const auto watch = std::make_shared<WatchCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "watch", "Prints arrivals, removals and bus resets.", [watch] { return watch->Run(); });
    watch->AddOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
