// SPDX-License-Identifier: Apache-2.0
// `nimbrel list`: what is attached now, or as soon as the wanted cameras are. Main thread only; no lock.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/nimbrel/CameraColumns.h"
#include "tools/nimbrel/Capacity.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/EventQueue.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/ListTexts.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds LongestTimeout = std::chrono::hours(24 * 365);
// A camera is listed when it answers, not when the window closes: the monitor keeps listening.
constexpr milliseconds WindowWhenWaiting{100};

const char Footer[] =
    R"help(Exit status:
  0  The list was printed, even if empty. With --wait: the cameras are attached.
  1  Failed, or a bus cannot be searched (the others are listed), or --timeout
     ended; standard error says why, or which cameras are missing.
  2  Wrong usage; standard error names the option and the value.
  Ctrl-C ends it at once (status 130).

JSON: {"cameras":[{"index","serial","serial_text","guid","interface","vendor",
"model","name","speed","port","location","ip","mac","control"}],"devices":
[{"index","guid","interface"}],"searched":["1394","usb","gige"]}. "interface" is
one of 1394, USB2, USB3, GigE; "speed" in Mbit/s; "ip", "mac" and "control" on
GigE only; what is unknown is missing. Devices are IEEE 1394 nodes other than
cameras. Keep the guid (on GigE the serial or the MAC), not the index.

Examples:
  nimbrel list                                    what is attached
  nimbrel list --bus gige --interface eth1 --discovery-window 0.2
                                                  quick, on one network
  nimbrel list --vendor acme --sort -speed --columns serial,model,speed
  nimbrel list --wait 19340211,19340212 --timeout 30 && ./grab
                                                  start when both are attached
  nimbrel list --json | jq -r '.cameras[] | "\(.serial) \(.ip)"'
)help";

class ListCommand {
public:
    explicit ListCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_context.AddJsonOption(command, "Print JSON.");
        command.add_flag("-l,--long", m_long, "Print everything that is known, a paragraph per\ncamera.");
        CommandContext::AddValue(command, "--columns", "NAME[,NAME...]",
                                 "Print these columns: index, serial, serial_text,\n"
                                 "guid, interface, ip, mac, vendor, model, name,\n"
                                 "speed, port, location, control.",
                                 [this](const std::string& text) { m_columns = ParseColumns("--columns", text); });
        CommandContext::AddValue(command, "--sort", "[-]NAME[,...]",
                                 "Sort by these columns; - in front of a name: in\ndescending order.",
                                 [this](const std::string& text) { m_sortKeys = ParseSortKeys("--sort", text); });
        AddFilter(command, "--vendor", "TEXT", "Only cameras with this text in their vendor name;\nrepeatable.",
                  &m_filter.vendors);
        AddFilter(command, "--model", "TEXT", "Only cameras with this text in their model name;\nrepeatable.",
                  &m_filter.models);
        AddFilter(command, "--serial", "SERIAL", "Only the camera with this serial number or text;\nrepeatable.",
                  &m_filter.serials);
        CommandContext::AddValue(command, "--wait", "SERIAL[,SERIAL...]",
                                 "Wait until cameras with these serial numbers are\n"
                                 "attached, then list.",
                                 [this](const std::string& text) { m_wanted = ParseSerialNumbers("--wait", text); });
        CommandContext::AddValue(command, "--timeout", "SECONDS",
                                 "Wait for them at most this long, counted from the\n"
                                 "start of the program. Default: forever.",
                                 [this](const std::string& text) {
                                     m_timeout = ParseSeconds("--timeout", text, milliseconds(0), LongestTimeout);
                                 });
        m_context.AddBusOptions(command);
    }

    static void AddFilter(CLI::App& command, const std::string& name, const std::string& placeholder,
                          const std::string& description, std::vector<std::string>* words) {
        CommandContext::AddValue(
            command, name, placeholder, description, [words](const std::string& text) { words->push_back(text); },
            CommandContext::Times::Repeatable);
    }

    int Run() {
        if (m_timeout && m_wanted.empty()) {
            throw CommandError("--timeout requires --wait", ExitUsage);
        }
        if (m_long && !m_columns.empty()) {
            throw CommandError("--long and --columns cannot be combined", ExitUsage);
        }
        const Clock::time_point start = Clock::now();
        EventQueue events;  // outlives the bus master, which calls it back
        const BusMasterSession busMaster =
            m_wanted.empty() ? m_context.StartBusMaster() : m_context.StartBusMaster(WindowWhenWaiting);
        const bool healthy = m_context.CheckBuses(*busMaster);
        std::vector<Camera> cameras;
        if (m_wanted.empty()) {
            cameras = ListCameras(*busMaster);
        } else {
            events.Register(*busMaster);
            cameras = WaitForCameras(*busMaster, events, start);
        }
        const Listed listed = Collect(*busMaster, std::move(cameras));
        m_context.Print(m_context.WantsJson() ? ListAsJson(listed, m_context) : ForPeople(listed));
        if (m_wanted.empty()) {
            m_context.NoteFilters("list");
            m_context.NoteBusesWithoutDriver("list");
        }
        // With --wait the wanted cameras are there, so a failing bus without them does not matter.
        return healthy || !m_wanted.empty() ? ExitDone : ExitFailed;
    }

private:
    // ---- Waiting ---------------------------------------------------------------------------------------------------

    std::vector<std::uint32_t> MissingOf(const std::vector<Camera>& cameras) const {
        std::vector<std::uint32_t> missing;
        for (const std::uint32_t serial : m_wanted) {
            const auto found = std::find_if(cameras.begin(), cameras.end(),
                                            [serial](const Camera& camera) { return camera.serialNumber == serial; });
            if (found == cameras.end()) {
                missing.push_back(serial);
            }
        }
        return missing;
    }

    static std::string DescribeSerials(const std::vector<std::uint32_t>& serials) {
        std::vector<std::string> words;
        for (const std::uint32_t serial : serials) {
            words.push_back(std::to_string(serial));
        }
        return (words.size() == 1 ? "camera " : "cameras ") + Enumerate(words);
    }

    std::vector<Camera> WaitForCameras(BusMaster& busMaster, EventQueue& events, Clock::time_point start) const {
        std::unique_ptr<Progress> progress;
        std::vector<std::uint32_t> missing;
        for (std::vector<std::uint32_t> before;; before = missing) {
            std::vector<Camera> cameras = ListCameras(busMaster);
            missing = MissingOf(cameras);
            if (missing.empty()) {
                return cameras;
            }
            if (!progress || missing != before) {
                progress.reset();
                progress = std::make_unique<Progress>("Waiting for " + DescribeSerials(missing));
            }
            if (!WaitForEvent(events, start)) {
                break;
            }
        }
        throw CommandError("after " + FormatSeconds(*m_timeout) + " still missing: " + DescribeSerials(missing))
            .WithHint("`nimbrel list` shows what is attached; `nimbrel doctor` finds out why a camera is not seen.");
    }

    // Takes the events that are queued, waiting for one if there is none. False when the time-out came first.
    bool WaitForEvent(EventQueue& events, Clock::time_point start) const {
        for (;;) {
            bool any = false;
            while (events.Take()) {
                any = true;
            }
            if (any) {
                return true;
            }
            int patience = -1;
            if (m_timeout) {
                const auto left = std::chrono::ceil<milliseconds>(start + *m_timeout - Clock::now());
                if (left.count() <= 0) {
                    return false;
                }
                patience = static_cast<int>(std::min<milliseconds::rep>(left.count(), 1'000'000'000));
            }
            pollfd wait{events.GetFd(), POLLIN, 0};
            poll(&wait, 1, patience);
        }
    }

    // ---- What is listed --------------------------------------------------------------------------------------------

    Details WantedDetails() const {
        Details wanted;
        if (m_context.WantsJson() || m_long) {
            return {true, true, true};
        }
        for (const CameraColumn* column : m_columns) {
            wanted = wanted | column->needs;
        }
        for (const SortKey& key : m_sortKeys) {
            wanted = wanted | key.column->needs;
        }
        return wanted;
    }

    Listed Collect(BusMaster& busMaster, std::vector<Camera> cameras) const {
        Listed listed;
        listed.cut = FindCutListings(cameras);
        const bool anyAtAll = !cameras.empty();
        cameras.erase(std::remove_if(cameras.begin(), cameras.end(),
                                     [this](const Camera& camera) { return !m_filter.Passes(camera); }),
                      cameras.end());
        ReadDetails(busMaster, WantedDetails(), &cameras);
        SortCameras(m_sortKeys, &cameras);
        listed.cameras = std::move(cameras);
        if (m_filter.IsEmpty()) {
            listed.devices = ListDevices(busMaster);
        }
        if (m_filter.IsEmpty() || !anyAtAll) {
            listed.unusable = FindUnusable();
        }
        return listed;
    }

    // GigE cameras that answer broadcasts and are not listed.
    std::vector<HeardCamera> FindUnusable() const {
        if (!m_context.UsesBus("gige") || Platform::DiagnoseGigE(false, &m_diagnosis) != HAL_OK) {
            return {};
        }
        std::vector<HeardCamera> heard = FindHeardCameras(m_diagnosis);
        heard.erase(std::remove_if(heard.begin(), heard.end(),
                                   [](const HeardCamera& camera) { return camera.usability == Usability::Usable; }),
                    heard.end());
        return heard;
    }

    std::string ForPeople(const Listed& listed) const {
        const bool coloured = m_context.UsesColour();
        std::string text = m_long ? ListAsParagraphs(listed, coloured) : ListAsTable(listed, m_columns, coloured);
        if (!listed.cameras.empty()) {
            return text;
        }
        if (!m_filter.IsEmpty()) {
            return "No attached camera matches.\n" + text;
        }
        if (!listed.unusable.empty()) {
            return "No usable cameras found on " + m_context.DescribeBuses("or") + ".\n" + text;
        }
        return NothingFound(m_context) + text;
    }

    CommandContext& m_context;
    bool m_long = false;
    CameraFilter m_filter;
    std::vector<const CameraColumn*> m_columns;  ///< Empty: the usual ones.
    std::vector<SortKey> m_sortKeys;
    mutable Platform::GigEDiagnosis m_diagnosis;  ///< HeardCameras point into it.
    std::vector<std::uint32_t> m_wanted;
    std::optional<milliseconds> m_timeout;
};

}  // namespace

void AddListCommand(CLI::App& app, CommandContext& context) {
    const auto list = std::make_shared<ListCommand>(context);
    CLI::App* command = context.AddCommand(app, "list", "Lists the attached cameras.", [list] { return list->Run(); });
    list->AddOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
