// SPDX-License-Identifier: Apache-2.0
// Prints bus events, for people or as JSON. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_EVENTPRINTER_H
#define NIMBREL2_TOOLS_NIMBREL_EVENTPRINTER_H

#include <optional>
#include <string>
#include <vector>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandContext.h"
#include "tools/nimbrel/EventQueue.h"

namespace Nimbrel2::Tool {

/// Remembers the cameras, so that one that has left can still be named. Cameras may share a serial number, which is all
/// that an event carries; which of them it was follows from what has changed in the list since.
class CameraMemory {
public:
    explicit CameraMemory(BusMaster& busMaster) : m_busMaster(busMaster), m_known(ListCameras(busMaster)) {}

    std::size_t GetSize() const { return m_known.size(); }

    /// The camera that came or left; nothing when it is not known.
    std::optional<Camera> Find(const BusEvent& event) {
        const std::vector<Camera> now = ListCameras(m_busMaster);
        return event.type == ARRIVAL ? Arrived(now, event.serialNumber) : Removed(now, event.serialNumber);
    }

private:
    using Cameras = std::vector<Camera>;

    static Cameras::const_iterator Find(const Cameras& cameras, std::uint32_t serial, const Cameras& others);
    std::optional<Camera> Arrived(const Cameras& now, std::uint32_t serial);
    std::optional<Camera> Removed(const Cameras& now, std::uint32_t serial);

    BusMaster& m_busMaster;
    Cameras m_known;
};

/// Prints one line per event: local time and the camera's name for people, a JSON object with --json.
class EventPrinter {
public:
    EventPrinter(CommandContext& context, BusMaster& busMaster) : m_context(context), m_memory(busMaster) {}

    /// How many cameras there were at first and have come since.
    std::size_t GetNumCameras() const { return m_memory.GetSize(); }

    /// @return false when the reader is gone or a signal came meanwhile. @throws CommandError
    bool Print(const BusEvent& event);

private:
    std::string ForPeople(const BusEvent& event, const std::optional<Camera>& camera) const;

    CommandContext& m_context;
    CameraMemory m_memory;
};

}  // namespace Nimbrel2::Tool

#endif
