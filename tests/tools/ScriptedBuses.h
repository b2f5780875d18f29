// SPDX-License-Identifier: Apache-2.0
// The three buses of a computer that a script attaches cameras to, below the real HAL. Safe from any thread; one mutex,
// let go while a held listing waits.
#ifndef NIMBREL2_TESTS_TOOLS_SCRIPTEDBUSES_H
#define NIMBREL2_TESTS_TOOLS_SCRIPTEDBUSES_H

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/Drivers.h"
#include "platform/Platform.h"

namespace Nimbrel2::Tool::Testing {

/// A camera or device of the script.
struct ScriptedCamera {
    std::string kind;  ///< The word that attached it.
    std::string serialText;
    std::uint32_t serialNumber = 0;
    std::uint32_t number = 0;  ///< GigE: IP address; USB: Mbit/s; device: the high half of the EUI-64.
    std::string vendor;
    std::string model;
    std::uint64_t staleListings = 0;  ///< Entries of so many listings so far tell nothing of the camera any more.
    std::uint32_t staleStatus = 0;    ///< What they answer instead.
};

/// The computer. Each line is one change; a change after the start is also reported as the bus would:
///   gige SERIALTEXT IP VENDOR MODEL     attaches; texts know \s for a blank and \xNN for a byte
///   usb SERIAL MBITS VENDOR MODEL
///   1394 SERIAL VENDOR MODEL
///   virtual SERIAL
///   device EUIHIGH EUILOW
///   remove SERIALTEXT                   detaches
///   stale SERIALTEXT STATUS             entries of it so far answer the status when they are asked who it is
///   reset BUS                           BUS is 1394, usb or gige
///   fail BUS STATUS                     listings of the bus answer the status; 0: they work again
///   hold BUS, release BUS               listings of the bus wait in between
///   without BUS                         the computer has no driver for the bus; before the start only
///   heard SERIALTEXT IP                 a GigE camera answers broadcasts from a wrong subnet, on eth0
///   tell options                        prints on standard error what the platform was configured with
class ScriptedBuses {
public:
    /// @throws std::runtime_error for a line that says nothing.
    void Do(const std::string& line);

    /// Makes the drivers of this computer. The object must outlive them.
    Platform::Drivers MakeDrivers(const Platform::Options& options, const Platform::BusEventSinks& sinks);

    // For the drivers.
    void Start(const std::string& bus, Platform::BusEventSink* sink);
    void Stop(const std::string& bus);
    /// The cameras of that kind, once the bus answers. Any status but HAL_OK: none.
    std::uint32_t List(const std::string& bus, const std::string& kind,
                       std::vector<std::shared_ptr<ScriptedCamera>>* cameras, Platform::BusState* state);
    std::uint64_t CurrentListing();
    Platform::GigEDiagnosis Diagnose(bool askControl);
    std::uint32_t InfoStatus(const ScriptedCamera& camera, std::uint64_t listing);

private:
    struct Bus {
        Platform::BusEventSink* sink = nullptr;
        std::uint32_t status = 0;
        bool held = false;
        std::uint64_t resets = 0;
    };

    void Attach(const ScriptedCamera& camera);
    void Remove(const std::string& serialText);
    Platform::BusState StateOf(const std::string& bus) const;  // m_mutex is held
    void Report(const std::string& bus);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, Bus> m_buses{{"1394", {}}, {"usb", {}}, {"gige", {}}};
    std::vector<std::shared_ptr<ScriptedCamera>> m_cameras;
    std::uint64_t m_listings = 0;
    std::set<std::string> m_withoutDriver;
    std::vector<std::shared_ptr<ScriptedCamera>> m_heard;
    bool m_tellOptions = false;
};

}  // namespace Nimbrel2::Tool::Testing

#endif
