// SPDX-License-Identifier: Apache-2.0
// Lines for bus events. Main thread only; no lock.
#include "tools/nimbrel/EventPrinter.h"

#include <time.h>

#include <algorithm>
#include <cstdio>

#include "tools/nimbrel/Style.h"
#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

using std::chrono::milliseconds;

const char* EventName(BusCallbackType type) {
    switch (type) {
        case BUS_RESET:
            return "reset";
        case ARRIVAL:
            return "arrival";
        case REMOVAL:
            break;
    }
    return "removal";
}

// The calendar form of a time, down to the millisecond.
std::string FormatTime(std::chrono::system_clock::time_point time, const char* format,
                       struct tm* (*convert)(const time_t*, struct tm*)) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    const auto thousandths = std::chrono::duration_cast<milliseconds>(time - whole).count();
    const time_t seconds = std::chrono::system_clock::to_time_t(whole);
    struct tm parts {};
    convert(&seconds, &parts);
    char text[64];
    const std::size_t length = strftime(text, sizeof text, format, &parts);
    char decimals[8];
    std::snprintf(decimals, sizeof decimals, ".%03d", static_cast<int>(thousandths));
    return std::string(text, length) + decimals;
}

std::string Name(const Camera& camera) {
    std::string name = ForTerminal(camera.vendor + " " + camera.model) + ", " + FormatInterface(camera.interfaceType);
    if (camera.IsGigE()) {
        name += " " + FormatIp(camera.ip);
    }
    return name;
}

std::string AsJson(const BusEvent& event, const std::optional<Camera>& camera) {
    Json json{{"event", EventName(event.type)},
              {"serial", event.serialNumber},
              {"generation", event.generation},
              {"time", FormatTime(event.time, "%Y-%m-%dT%H:%M:%S", gmtime_r) + "Z"}};
    if (camera) {
        json["guid"] = FormatGuid(camera->guid);
        json["interface"] = FormatInterface(camera->interfaceType);
        json["vendor"] = camera->vendor;
        json["model"] = camera->model;
        if (camera->IsGigE()) {
            json["ip"] = FormatIp(camera->ip);
        }
    }
    return Dump(json);
}

Colour ColourOf(BusCallbackType type) {
    if (type == BUS_RESET) {
        return Colour::Dim;
    }
    return type == ARRIVAL ? Colour::Green : Colour::Red;
}

}  // namespace

// The camera with that serial number that is not among the others; any with that number if all are.
CameraMemory::Cameras::const_iterator CameraMemory::Find(const Cameras& cameras, std::uint32_t serial,
                                                         const Cameras& others) {
    const auto matches = [serial](const Camera& camera) { return camera.serialNumber == serial; };
    const auto isAlone = [&](const Camera& camera) {
        return matches(camera) && std::none_of(others.begin(), others.end(),
                                               [&](const Camera& other) { return other.guid == camera.guid; });
    };
    const auto found = std::find_if(cameras.begin(), cameras.end(), isAlone);
    return found != cameras.end() ? found : std::find_if(cameras.begin(), cameras.end(), matches);
}

std::optional<Camera> CameraMemory::Arrived(const Cameras& now, std::uint32_t serial) {
    const auto found = Find(now, serial, m_known);
    if (found == now.end()) {
        return std::nullopt;
    }
    const bool isKnown =
        std::any_of(m_known.begin(), m_known.end(), [&](const Camera& camera) { return camera.guid == found->guid; });
    if (!isKnown) {
        m_known.push_back(*found);
    }
    return *found;
}

std::optional<Camera> CameraMemory::Removed(const Cameras& now, std::uint32_t serial) {
    const auto found = Find(m_known, serial, now);
    if (found == m_known.end()) {
        return std::nullopt;
    }
    const Camera camera = *found;
    const bool isBack =
        std::any_of(now.begin(), now.end(), [&](const Camera& other) { return other.guid == camera.guid; });
    if (!isBack) {
        m_known.erase(found);
    }
    return camera;
}

bool EventPrinter::Print(const BusEvent& event) {
    const std::optional<Camera> camera = event.type == BUS_RESET ? std::nullopt : m_memory.Find(event);
    return m_context.GetOutput().Write(m_context.WantsJson() ? AsJson(event, camera) : ForPeople(event, camera)) ==
           Output::Result::Written;
}

std::string EventPrinter::ForPeople(const BusEvent& event, const std::optional<Camera>& camera) const {
    const bool coloured = m_context.UsesColour();
    const std::string time = FormatTime(event.time, "%Y-%m-%d %H:%M:%S", localtime_r);
    if (event.type == BUS_RESET) {
        return time + "  " + Paint("bus reset", ColourOf(event.type), coloured) + "\n";
    }
    const std::string serial = std::to_string(event.serialNumber);
    const std::string padding(serial.size() < 10 ? 10 - serial.size() : 0, ' ');
    return time + "  " + Paint(EventName(event.type), ColourOf(event.type), coloured) + "  " + padding + serial +
           (camera ? "  " + Name(*camera) : "") + "\n";
}

}  // namespace Nimbrel2::Tool
