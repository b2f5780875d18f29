// SPDX-License-Identifier: Apache-2.0
// `nimbrel list`: what is attached now, or as soon as the wanted cameras are. Main thread only; no lock.
#include "tools/nimbrel/ListCommand.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/EventQueue.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLongestTimeout = std::chrono::hours(24 * 365);
// Who waits for a camera wants to hear of it when it answers, not when the window closes: the monitor goes on
// listening.
constexpr milliseconds kWindowWhenWaiting{100};

const char kFooter[] =
    R"help(Exit status:
  0  The list was printed, be it empty. With --wait: the cameras are there.
  1  It failed, or a bus cannot be searched (the others are listed), or
     --timeout ended; standard error says why, or who is missing.
  2  Wrong usage; standard error names the option and the value.
  Ctrl-C ends it at once (status 130).

JSON: {"cameras":[{"index","serial","serial_text","guid","interface","vendor",
"model","ip"}],"devices":[{"index","guid","interface"}]}; "ip" is there for GigE
cameras only, "interface" is one of 1394, USB2, USB3, GigE. Devices are IEEE
1394 nodes that are no cameras. Keep the guid, not the index: positions move.

Examples:
  nimbrel list                                    what is attached
  nimbrel list --bus gige --interface eth1 --discovery-window 0.2
                                                  quick, on one network
  nimbrel list --wait 19340211,19340212 --timeout 30 && ./grab
                                                  start when both are up
  nimbrel list --json | jq -r '.cameras[] | "\(.serial) \(.ip)"'
)help";

class ListCommand {
public:
    explicit ListCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_context.AddJsonOption(command, "Print one JSON document.");
        command.add_flag("-l,--long", m_long, "Print all that is known, a paragraph a camera.");
        CommandContext::AddValue(command, "--wait", "SERIAL[,SERIAL...]",
                                 "Wait until cameras with these serial numbers are\n"
                                 "there, then list what is.",
                                 [this](const std::string& text) { m_wanted = ParseSerialNumbers("--wait", text); });
        CommandContext::AddValue(command, "--timeout", "SECONDS",
                                 "Wait no longer for them, counted from the start\n"
                                 "of the program. Without it: for ever.",
                                 [this](const std::string& text) {
                                     m_timeout = ParseSeconds("--timeout", text, milliseconds(0), kLongestTimeout);
                                 });
        m_context.AddBusOptions(command);
    }

    int Run() {
        if (m_timeout && m_wanted.empty())
            throw CommandError("--timeout: there is no --wait that it could end", kUsage);
        const Clock::time_point start = Clock::now();
        EventQueue events;  // outlives the bus master, which calls it back
        const BusMasterSession busMaster =
            m_wanted.empty() ? m_context.StartBusMaster() : m_context.StartBusMaster(kWindowWhenWaiting);
        const bool healthy = m_context.CheckBuses(*busMaster);
        std::vector<Camera> cameras;
        if (m_wanted.empty()) {
            cameras = ListCameras(*busMaster);
        } else {
            events.Register(*busMaster);
            cameras = WaitForCameras(*busMaster, events, start);
        }
        const std::vector<Device> devices = ListDevices(*busMaster);
        m_context.Print(m_context.WantsJson() ? AsJson(cameras, devices) : ForPeople(cameras, devices));
        // The cameras that were asked for are there: then a bus without them may be as ill as it likes.
        return healthy || !m_wanted.empty() ? kDone : kFailed;
    }

private:
    // ---- Waiting ---------------------------------------------------------------------------------------------------

    std::vector<std::uint32_t> MissingOf(const std::vector<Camera>& cameras) const {
        std::vector<std::uint32_t> missing;
        for (const std::uint32_t serial : m_wanted) {
            const auto found = std::find_if(cameras.begin(), cameras.end(),
                                            [serial](const Camera& camera) { return camera.serialNumber == serial; });
            if (found == cameras.end()) missing.push_back(serial);
        }
        return missing;
    }

    static std::string DescribeSerials(const std::vector<std::uint32_t>& serials) {
        std::vector<std::string> words;
        for (const std::uint32_t serial : serials) words.push_back(std::to_string(serial));
        return (words.size() == 1 ? "camera " : "cameras ") + Enumerate(words);
    }

    std::vector<Camera> WaitForCameras(BusMaster& busMaster, EventQueue& events, Clock::time_point start) const {
        std::unique_ptr<Progress> progress;
        std::vector<std::uint32_t> missing;
        for (std::vector<std::uint32_t> before;; before = missing) {
            std::vector<Camera> cameras = ListCameras(busMaster);
            missing = MissingOf(cameras);
            if (missing.empty()) return cameras;
            if (!progress || missing != before) {
                progress.reset();
                progress = std::make_unique<Progress>("Waiting for " + DescribeSerials(missing));
            }
            if (!WaitForEvent(events, start)) break;
        }
        throw CommandError("after " + FormatSeconds(*m_timeout) + " still missing: " + DescribeSerials(missing));
    }

    // Takes what has happened, waiting for it if need be. False when the time-out came first.
    bool WaitForEvent(EventQueue& events, Clock::time_point start) const {
        for (;;) {
            bool any = false;
            while (events.Take()) any = true;
            if (any) return true;
            int patience = -1;
            if (m_timeout) {
                const auto left = std::chrono::ceil<milliseconds>(start + *m_timeout - Clock::now());
                if (left.count() <= 0) return false;
                patience = static_cast<int>(std::min<milliseconds::rep>(left.count(), 1'000'000'000));
            }
            pollfd wait{events.GetFd(), POLLIN, 0};
            poll(&wait, 1, patience);
        }
    }

    // ---- Printing --------------------------------------------------------------------------------------------------

    static std::string AsJson(const std::vector<Camera>& cameras, const std::vector<Device>& devices) {
        Json json{{"cameras", Json::array()}, {"devices", Json::array()}};
        for (const Camera& camera : cameras) json["cameras"].push_back(ToJson(camera));
        for (const Device& device : devices) json["devices"].push_back(ToJson(device));
        return Dump(json, 2);
    }

    std::string ForPeople(const std::vector<Camera>& cameras, const std::vector<Device>& devices) const {
        std::string text;
        if (cameras.empty()) {
            text = NothingFound();
        } else {
            text = m_long ? Paragraphs(cameras) : CameraTable(cameras).Render(OutputWidth());
            const bool oneOfMany = !m_long && cameras.size() > 1;
            if (oneOfMany) text += "\n" + std::to_string(cameras.size()) + " cameras\n";
        }
        if (!devices.empty()) text += "\nIEEE 1394 devices that are no cameras:\n" + DeviceTable(devices);
        return text;
    }

    // The serial number as a number is what commands take; the text is worth a column where it says something else.
    static bool HasOtherText(const Camera& camera) {
        return !camera.serialText.empty() && camera.serialText != std::to_string(camera.serialNumber);
    }

    static Table CameraTable(const std::vector<Camera>& cameras) {
        const bool anyText = std::any_of(cameras.begin(), cameras.end(), HasOtherText);
        const bool anyIp = std::any_of(cameras.begin(), cameras.end(), [](const Camera& c) { return c.IsGigE(); });
        Table table;
        table.AddColumn("#", Table::Align::Right);
        table.AddColumn("SERIAL", Table::Align::Right);
        if (anyText) table.AddColumn("SERIAL TEXT", Table::Align::Left, Table::Width::Giving);
        table.AddColumn("BUS");
        if (anyIp) table.AddColumn("ADDRESS");
        table.AddColumn("VENDOR", Table::Align::Left, Table::Width::Giving);
        table.AddColumn("MODEL", Table::Align::Left, Table::Width::Giving);
        for (const Camera& camera : cameras) {
            std::vector<std::string> cells{std::to_string(camera.index), std::to_string(camera.serialNumber)};
            if (anyText) cells.push_back(camera.serialText);
            cells.push_back(FormatInterface(camera.interfaceType));
            if (anyIp) cells.push_back(camera.IsGigE() ? FormatIp(camera.ip) : "");
            cells.push_back(camera.vendor);
            cells.push_back(camera.model);
            table.AddRow(cells);
        }
        return table;
    }

    static std::string DeviceTable(const std::vector<Device>& devices) {
        Table table;
        table.AddColumn("#", Table::Align::Right);
        table.AddColumn("BUS");
        table.AddColumn("GUID");
        for (const Device& device : devices) {
            table.AddRow(
                {std::to_string(device.index), FormatInterface(device.interfaceType), FormatGuid(device.guid)});
        }
        return table.Render(OutputWidth());
    }

    static std::string Paragraphs(const std::vector<Camera>& cameras) {
        std::string text;
        for (const Camera& camera : cameras) {
            const auto line = [&text](const char* name, const std::string& value) {
                text += "  " + std::string(name) + ForTerminal(value) + "\n";
            };
            text += (text.empty() ? "" : "\n");
            text += "Camera " + std::to_string(camera.index) + "\n";
            line("serial number  ", std::to_string(camera.serialNumber));
            if (HasOtherText(camera)) line("serial text    ", camera.serialText);
            line("guid           ", FormatGuid(camera.guid));
            line("bus            ", FormatInterface(camera.interfaceType));
            if (camera.IsGigE()) line("address        ", FormatIp(camera.ip));
            line("vendor         ", camera.vendor);
            line("model          ", camera.model);
        }
        return text;
    }

    std::string NothingFound() const {
        std::string text = "No cameras found on " + m_context.DescribeBuses() + ".\n\n";
        text += "Check that each camera has power and that its cable is plugged in at both ends.\n";
        if (!m_context.UsesBus("gige")) return text;
        const std::vector<std::string> interfaces = m_context.GetNetworkInterfaces();
        if (interfaces.empty() && m_context.GetRig())
            return text + "GigE: the rig has no network interface that is up.\n";
        if (interfaces.empty()) {
            return text +
                   "GigE: no network interface is up with a link and an IPv4 address (loopback counts\n"
                   "only when it is named, as in \"--interface lo\"). `ip link set NAME up` brings one\n"
                   "up, `ip addr add ADDRESS/24 dev NAME` gives it an address.\n";
        }
        std::vector<std::string> shown;
        for (const std::string& name : interfaces) shown.push_back(ForTerminal(name));
        return text + "GigE: looked on " + Enumerate(shown) +
               ".\n"
               "The link lights must be on, the camera's address must be in the subnet of that\n"
               "interface, and a firewall must let in UDP packets that come from port 3956.\n";
    }

    CommandContext& m_context;
    bool m_long = false;
    std::vector<std::uint32_t> m_wanted;
    std::optional<milliseconds> m_timeout;
};

}  // namespace

void AddListCommand(CLI::App& app, CommandContext& context) {
    const auto list = std::make_shared<ListCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "list", "Lists the cameras that are attached.", [list] { return list->Run(); });
    list->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
