// SPDX-License-Identifier: Apache-2.0
// Makes and unmakes the core. The thread that makes the driver, and whichever drops the last entry.
#include "platform/linux/gige/GigECore.h"

#include <random>

namespace Nimbrel2::Platform::GigE {

GigECore::GigECore(std::vector<std::string> networkInterfaces, const Timings& timings, BusEventSink& events)
    : m_wantedInterfaces(std::move(networkInterfaces)),
      m_timings(timings),
      m_events(events),
      m_ids(static_cast<std::uint16_t>(std::random_device{}())),
      m_table(m_timings, m_ids) {}

GigECore::~GigECore() { Stop(); }

}  // namespace Nimbrel2::Platform::GigE
