// SPDX-License-Identifier: Apache-2.0
// What the GigE bus, its monitor thread and its camera entries share. One class, several files: CoreInterfaces,
// CoreMonitor, CoreListing, CoreRegisters, CoreDiscovery, CoreForceIp, CoreAutoIp, CoreDiagnosis, CoreHearing.
//
// Threads: one monitor thread from Start to Stop; any user threads. Lock order, outermost first:
//   CameraChannel::command   one command of one camera, held while the camera answers
//   GigECore::m_mutex        the table, the interfaces and what was reported; never held while waiting for the network
//   PendingReplies, RequestIds, RouteSocket, the event sink   leaves
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_GIGECORE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_GIGECORE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/Drivers.h"
#include "platform/base/Errno.h"
#include "platform/base/Poller.h"
#include "platform/base/RouteSocket.h"
#include "platform/linux/gige/CameraTable.h"
#include "platform/linux/gige/PacketListener.h"
#include "platform/linux/gige/PendingReplies.h"
#include "platform/linux/gige/RequestIds.h"
#include "platform/linux/gige/SourceBudget.h"
#include "platform/linux/gige/Timings.h"
#include "platform/linux/gige/UdpPort.h"

namespace Nimbrel2::Platform::GigE {

/// A camera as one listing saw it.
struct ListedCamera {
    CameraKey key;
    GvcpDiscoveryRecord record{};
    TimePoint listedAt;
};

/// The last answer of a camera to a discovery, on one interface.
struct DiscoveredCamera {
    GvcpDiscoveryRecord record{};
    int interface = 0;
    bool reachable = false;  ///< its address is one of that interface's wire
    TimePoint heardAt;
};

class GigECore final : public DatagramHandler {
public:
    GigECore(std::vector<std::string> networkInterfaces, const Timings& timings, BusEventSink& events);
    ~GigECore() override;

    // The bus. Each as Drivers.h states it.
    std::uint32_t Start();
    void Stop();
    std::uint32_t ListCameras(std::vector<ListedCamera>* cameras, BusState* state);
    std::uint32_t Discover(std::vector<DiscoveredCamera>* cameras);
    std::uint32_t ForceIp(std::uint64_t mac, std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway);

    /// @param serialNumber  Nothing for every camera.
    std::uint32_t AutoForceIp(std::optional<std::uint32_t> serialNumber);
    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans);
    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis);
    std::uint32_t TestHearing(GigEHearing* hearing);

    // One camera, found anew at each call. listed is what the entry's own listing saw.
    std::uint32_t GetRecord(const ListedCamera& listed, GvcpDiscoveryRecord* record);
    std::uint32_t ReadRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t* value);
    std::uint32_t WriteRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t value);
    std::uint32_t GetControl(const ListedCamera& listed, ControlInfo* control);
    std::uint32_t IsInMonitorMode(const ListedCamera& listed, bool* monitor);
    std::uint32_t GetLocalEnd(const ListedCamera& listed, std::uint32_t* ip, std::uint16_t* port);

    /// The monitor thread and every thread that waits for an answer.
    void OnDatagram(UdpPort& port, std::uint32_t from, std::uint16_t fromPort,
                    std::span<const std::uint8_t> bytes) override;

private:
    struct Interface {
        NetworkInterface info;
        std::shared_ptr<UdpPort> port;  ///< kept while the interface may come back: control goes by the local port
        std::string reason;             ///< why it is not used; empty when it is
        int error = 0;                  ///< errno of a socket that was refused
        int sendError = 0;              ///< errno of the last broadcast
        TimePoint nextBroadcast;
        int requestsLeft = 0;  ///< of the burst that begins a window
        std::uint16_t burstId = 0;

        bool IsUsed() const { return reason.empty() && port != nullptr; }
    };

    struct RouteAnswer {
        bool direct = false;
        TimePoint askedAt;
    };

    struct Broadcast {
        int interface = 0;
        TimePoint until;
    };

    /// Where a camera is now.
    struct Target {
        std::shared_ptr<UdpPort> port;
        std::uint32_t ip = 0;
        std::uint32_t localIp = 0;
        std::shared_ptr<CameraChannel> channel;
        bool silent = false;  ///< it is just missing its rounds
    };

    struct Command {
        Gvcp::MessageId acknowledge{};
        std::uint32_t address = 0;
        std::uint32_t value = 0;
    };

    /// What a discovery hears, by camera and interface.
    using Collected = std::map<std::pair<CameraKey, int>, DiscoveredCamera>;

    struct ForceJob {
        std::uint64_t mac = 0;
        std::uint32_t ip = 0;
        std::uint32_t mask = 0;
        std::uint32_t gateway = 0;
        std::uint32_t status = HAL_NO_ACKNOWLEDGE;
        std::vector<std::shared_ptr<UdpPort>> ports;
        std::unique_ptr<PendingReply> reply;
        ReplyNews said;
    };

    // CoreInterfaces.cpp
    int OpenSockets();
    void LookAtInterfaces();
    void UpdateInterface(Interface& interface, const NetworkInterface& now, bool isNew);  // m_mutex is held
    void DropInterface(int index);                                                        // m_mutex is held
    void StartBurst(Interface& interface, TimePoint now);                                 // m_mutex is held
    bool IsReachable(const Interface& interface, std::uint32_t ip, TimePoint now);        // m_mutex is held
    bool HasUsedInterface() const;                                                        // m_mutex is held
    std::uint32_t RefusalStatus() const;                                                  // m_mutex is held
    static std::uint32_t LocalAddressFor(const NetworkInterface& interface, std::uint32_t ip);

    // CoreMonitor.cpp
    void MonitorLoop();
    void MonitorTurn();
    TimePoint DoWhatIsDue();
    void SendBroadcast(Interface& interface, TimePoint now);  // m_mutex is held
    void SendProbes(const std::vector<Probe>& probes);
    bool TakesAnswer(const Interface& interface, std::uint32_t from, std::uint16_t id, const CameraKey& key,
                     TimePoint now);  // m_mutex is held
    void OnAcknowledge(UdpPort& port, std::uint32_t from, std::span<const std::uint8_t> bytes);
    void OnDiscoveryAcknowledge(UdpPort& port, std::uint32_t from, std::uint16_t id, const GvcpDiscoveryRecord& record);
    void ReportChanges();  // m_mutex is held; throws when memory runs out, and is due again then

    // CoreListing.cpp
    std::vector<const CameraTable::Sighting*> FindListed() const;  // m_mutex is held
    BusState GetState() const;                                     // m_mutex is held
    void WaitForWindow(std::unique_lock<std::mutex>& lock, TimePoint limit);
    void Verify(std::unique_lock<std::mutex>& lock, TimePoint limit);
    void CollectListed(std::vector<ListedCamera>* cameras) const;  // m_mutex is held

    // CoreRegisters.cpp
    std::uint32_t FindTarget(const ListedCamera& listed, Target* target);
    std::uint32_t Execute(const ListedCamera& listed, const Command& command, std::uint32_t* value);
    std::uint32_t ExecuteAlone(const Target& target, const Command& command, std::uint32_t* value);
    std::uint32_t Exchange(const Target& target, PendingReply& reply, std::span<const std::uint8_t> packet);
    void Suspect(const CameraKey& key);
    bool CountsAsPresent(const ListedCamera& listed, std::uint32_t* ip);

    // CoreDiscovery.cpp
    class Collecting;
    std::uint32_t DiscoverAll(Collected* heard);
    void WaitForAnswers(std::vector<PacketListener>& listeners, TimePoint deadline);
    void Collect(const CameraKey& key, const DiscoveredCamera& camera);  // m_mutex is held
    std::uint32_t SendStatus() const;                                    // m_mutex is held

    // CoreForceIp.cpp
    std::vector<std::shared_ptr<UdpPort>> FindPortsOf(std::uint64_t mac) const;  // m_mutex is held
    void ForceAll(std::vector<ForceJob>& jobs);
    void SendForceIps(std::vector<ForceJob>& jobs);
    void CamerasHaveMoved(const std::vector<ForceJob>& jobs);

    // CoreHearing.cpp
    std::vector<NetworkInterface> GetUsedInterfaces() const;
    bool HasHeard(int interface, const CameraKey& key) const;

    // CoreAutoIp.cpp
    std::vector<AddressPlan> PlansFor(const Collected& heard, std::optional<std::uint32_t> serialNumber) const;
    std::set<std::uint32_t> FindTakenAddresses(const Collected& heard, int interface);
    void ChooseAddresses(std::vector<AddressPlan*>& plans, std::set<std::uint32_t> taken);
    std::uint32_t AskWhoHas(int interface, const std::vector<std::uint32_t>& ips,
                            std::map<std::uint32_t, std::uint64_t>* neighbours);

    const std::vector<std::string> m_wantedInterfaces;
    const Timings m_timings;
    BusEventSink& m_events;

    // Made by Start, unchanged until the object ends.
    Poller m_poller;
    FileDescriptor m_stop;  ///< readable from Stop on
    std::unique_ptr<PendingReplies> m_replies;
    std::thread m_monitor;
    RouteSocket m_routes;

    // The monitor thread's own, and Start's before there is one.
    ChangeSocket m_changes;
    TimePoint m_retryRefused = TimePoint::max();

    std::atomic<std::thread::id> m_monitorId;

    RequestIds m_ids;
    std::atomic<bool> m_stopping{false};

    mutable std::mutex m_mutex;         ///< guards all below
    std::condition_variable m_changed;  ///< something a listing or a discovery waits for
    bool m_running = false;
    int m_routesRefused = 0;  ///< errno of the last look at the interfaces
    std::map<int, Interface> m_interfaces;
    CameraTable m_table;
    SourceBudget m_hearsay;
    std::unordered_map<std::uint16_t, Broadcast> m_broadcasts;  ///< whose answers still count, by request id
    TimePoint m_windowEnd = TimePoint::max();                   ///< of the first listing; set by the first request
    bool m_hasListed = false;
    bool m_reportDue = false;              ///< the table has changed since the last report
    int m_numWaiting = 0;                  ///< threads that wait for the table to change
    std::vector<Collected*> m_collectors;  ///< of the discoveries that run now
    std::map<std::pair<int, std::uint32_t>, RouteAnswer> m_directRoutes;  ///< what the kernel said, for a second
};

}  // namespace Nimbrel2::Platform::GigE

#endif
