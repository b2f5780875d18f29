// SPDX-License-Identifier: Apache-2.0
// Which buses are searched, and why the others are not. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_BUSHEALTH_H
#define NIMBREL2_TOOLS_NIMBREL_BUSHEALTH_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "busmaster/BusMaster.h"
#include "tools/nimbrel/CommandError.h"

namespace Nimbrel2::Tool {

/// A kind of bus as options and texts name it.
struct BusKind {
    const char* name;       ///< "1394", "usb", "gige"
    const char* forPeople;  ///< "IEEE 1394", "USB", "GigE"
    HALInterfaceType type;
};

/// In the order of listings.
const std::vector<BusKind>& BusKinds();

/// Whether that camera is on such a bus.
bool IsOn(HALInterfaceType bus, InterfaceType camera);

using IsWanted = std::function<bool(const BusKind& bus)>;

/// The wanted buses for which this build has no driver. The HAL must be running.
std::vector<BusKind> FindBusesWithoutDriver(const IsWanted& isWanted);

/// A bus that cannot be searched.
struct BusFailure {
    BusKind bus;
    std::uint32_t status = 0;  ///< HALStatus

    /// "USB cannot be searched: no permission".
    std::string Describe() const;
};

/// To the bus master a bus that cannot be listed is one without cameras. Asks the buses themselves, those on which it
/// lists none. What that listing finds is news to the bus master, like that of any other.
/// @throws CommandError with the bus master's error.
std::vector<BusFailure> FindFailedBuses(BusMaster& busMaster, const IsWanted& isWanted);

/// Why the bus master has not started.
CommandError ExplainStart(const Error& error, const IsWanted& isWanted);

}  // namespace Nimbrel2::Tool

#endif
