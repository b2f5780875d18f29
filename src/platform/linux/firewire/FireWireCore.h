// SPDX-License-Identifier: Apache-2.0
// What the IEEE 1394 driver, its monitor thread and its entries share. One class, several files: CoreMonitor,
// CoreNodes, CoreListing, CoreTransactions, CoreReadings, CoreBus, CoreDiagnosis.
//
// Threads: one monitor thread from Start to Stop, the only reader of node files and of sysfs, and the only one that
// adds and removes nodes; any user threads. Lock order, outermost first:
//   FireWireCore::m_mutex   all below it; never held while the bus or a file is waited for. What the kernel answers at
//                           once (GET_INFO, sending) may be asked with it held.
//   the event sink          a leaf
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_FIREWIRECORE_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_FIREWIRECORE_H

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Drivers.h"
#include "platform/FireWireDiagnostics.h"
#include "platform/base/MonitorThread.h"
#include "platform/base/Mutex.h"
#include "platform/base/Uevents.h"
#include "platform/linux/firewire/ConfigRom.h"
#include "platform/linux/firewire/NodeFile.h"
#include "platform/linux/firewire/NodeScan.h"
#include "platform/linux/firewire/PortChanges.h"
#include "platform/linux/firewire/Timings.h"

namespace Nimbrel2::Platform::FireWire {

/// What names a node for good.
struct NodeKey {
    std::string card;  ///< the controller's path in sysfs
    std::uint64_t eui64 = 0;

    auto operator<=>(const NodeKey&) const = default;
};

/// A node as one listing saw it.
struct ListedNode {
    NodeKey key;
    std::uint32_t unitVersion = 0;
    std::string vendor;
    std::string model;
};

enum class NodeKind { Camera, Device };

/// What a node that nobody may open has in the place of its node id, and its controller in that of its number while no
/// file of the bus is open.
inline constexpr std::uint16_t UnknownNode = 0xFFFF;
inline constexpr std::uint32_t UnknownCard = 0xFFFF;

/// The quadlet of the configuration ROM that holds the serial number, the low half of the EUI-64. Each cycle of the bus
/// master reads it from every camera that it keeps.
inline constexpr std::uint64_t SerialNumberOffset = 0xFFFFF0000410;

class FireWireCore {
public:
    FireWireCore(const Timings& timings, BusEventSink& events);
    ~FireWireCore();
    FireWireCore(const FireWireCore&) = delete;
    FireWireCore& operator=(const FireWireCore&) = delete;

    // The bus. Each as Drivers.h states it.
    std::uint32_t Start() NIMBREL2_EXCLUDES(m_mutex);
    void Stop() NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t List(NodeKind kind, std::vector<ListedNode>* nodes, BusState* state) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t Describe(std::vector<BusMap>* maps) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t Diagnose(bool askNodes, FireWireDiagnosis* diagnosis) NIMBREL2_EXCLUDES(m_mutex);

    // One node, found anew at each call.
    std::uint32_t GetIds(const NodeKey& key, std::uint16_t* nodeId, std::uint32_t* card) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t ReadQuadlet(const NodeKey& key, std::uint64_t offset, std::uint32_t* value)
        NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t WriteQuadlet(const NodeKey& key, std::uint64_t offset, std::uint32_t value)
        NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t ReadPhy(const NodeKey& key, std::uint32_t page, std::uint32_t port, std::uint32_t address,
                          std::uint32_t* value) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t WritePhy() NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t FireBusReset(const NodeKey& key) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t GetSelfIds(const NodeKey& key, std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                             std::uint32_t* generation) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t GetNodeSerialNumbers(const NodeKey& key, std::vector<std::uint32_t>* serialNumbers)
        NIMBREL2_EXCLUDES(m_mutex);

private:
    enum class State { None, Asked, Done };

    /// What is read before anybody asks for it.
    template <class Value>
    struct Reading {
        State state = State::None;
        std::uint8_t generation = 0;
        TimePoint at;  ///< asked or done
        std::uint32_t status = HAL_OK;
        Value value{};
    };

    /// The bus of one controller.
    struct Card {
        std::optional<std::uint32_t> number;  ///< the kernel's; nothing while no file of the bus could be opened
        bool known = false;                   ///< whether ids are
        TimePoint seenAt;                     ///< for the first time
        BusIds ids;                           ///< the newest
        std::uint64_t resets = 0;             ///< since it was first seen
        std::uint64_t settledResets = 0;      ///< those of which the consequences have been told
        std::deque<TimePoint> resetTimes;     ///< as far back as is counted

        Reading<std::vector<SelfIdPacket_t>> selfIds;
        std::vector<FireWirePhy> phys;  ///< the last stream that could be decoded, and this computer's phy id in it
        unsigned int local = 0;
        std::deque<std::pair<TimePoint, Socket>> portChanges;
    };

    struct Node {
        ScannedNode scanned;
        RomInfo rom;
        NodeKey key;
        std::uint64_t visit = 0;

        std::shared_ptr<NodeFile> file;  ///< null: not open, because of
        int openError = 0;
        TimePoint nextOpen;
        Milliseconds openPause{0};
        std::uint64_t token = 0;  ///< of the file, at the poller and in answers
        BusIds ids;               ///< as its own file has told last
        bool hasLeft = false;     ///< the kernel still waits whether it comes back
        bool receivesPhyPackets = false;

        bool mute = false;     ///< has timed out and not answered since
        TimePoint quietUntil;  ///< until then it is not asked
        TimePoint nextProbe;   ///< when the monitor tries whether it answers again
        Milliseconds probePause{0};
        /// A register in which a value was to be written, and that did not answer though the node does: what is written
        /// there is not sent until the monitor has seen it answer.
        std::optional<std::uint64_t> muteRegister;
        bool missedSomething = false;  ///< that a cycle would have read or written, while it was mute
        Reading<std::uint32_t> serialNumber;
        std::optional<TimePoint> owedSince;  ///< nothing has come of the serial number since, in any generation

        bool IsOpen() const { return file != nullptr; }
        void StartAnew() {
            mute = missedSomething = false;
            probePause = Milliseconds(0);
            muteRegister.reset();
            owedSince.reset();
        }
        const RomUnit* FindCamera() const { return scanned.isLocal ? nullptr : rom.FindCamera(); }
    };

    enum class Purpose { Caller, SerialNumber, Register, SelfIds };

    /// What waits for the end of a request.
    struct Answer {
        Purpose purpose = Purpose::Caller;
        std::uint64_t token = 0;  ///< of the file that it was sent on
        std::uint8_t generation = 0;
        TimePoint owedSince;  ///< of a reading: it is late some time after this
        bool complete = false;
        std::uint32_t rcode = 0;
        std::vector<std::uint8_t> payload;  ///< room in it is made before the request is sent
        /// Of a packet to a PHY, whose reply is known by its content alone: all bits of it but the register's value.
        std::optional<std::uint32_t> phyReply;
        std::optional<std::uint32_t> phyValue;
        ConditionVariable done;
    };

    using Closure = std::uint64_t;

    // CoreMonitor.cpp
    void MonitorTurn();
    TimePoint DoWhatIsDue();
    TimePoint GetNextDeadline() const NIMBREL2_REQUIRES(m_mutex);
    void HearUevents() NIMBREL2_EXCLUDES(m_mutex);
    void ReadEvents(std::uint64_t token) NIMBREL2_EXCLUDES(m_mutex);
    void OnEvent(std::uint64_t token, const NodeEvent& event) NIMBREL2_EXCLUDES(m_mutex);
    void OnPhyPacket(const PhyPacketEvent& event) NIMBREL2_REQUIRES(m_mutex);
    void NoteChange(bool lookToo) NIMBREL2_REQUIRES(m_mutex);
    TimePoint GetSettleTime() const NIMBREL2_REQUIRES(m_mutex);
    void Settle(bool burstIsOver) NIMBREL2_REQUIRES(m_mutex);
    void Report(bool burstIsOver) NIMBREL2_REQUIRES(m_mutex);
    BusState GetState() const NIMBREL2_REQUIRES(m_mutex);

    // CoreNodes.cpp
    void Look() NIMBREL2_EXCLUDES(m_mutex);
    void Merge(std::vector<ScannedNode>& found) NIMBREL2_REQUIRES(m_mutex);
    void AddNode(ScannedNode& scanned, RomInfo rom) NIMBREL2_REQUIRES(m_mutex);
    void DropNode(const std::string& name) NIMBREL2_REQUIRES(m_mutex);
    void OpenFiles() NIMBREL2_EXCLUDES(m_mutex);
    int AdoptFile(Node& node, std::shared_ptr<NodeFile> file, const NodeInfo& info) NIMBREL2_REQUIRES(m_mutex);
    void DropFile(Node& node, int error) NIMBREL2_REQUIRES(m_mutex);
    void OnReset(Node& node, const BusIds& ids) NIMBREL2_REQUIRES(m_mutex);
    void NoteInfo(Node& node, const BusIds& ids) NIMBREL2_REQUIRES(m_mutex);
    void Advance(Card& card, const BusIds& ids) NIMBREL2_REQUIRES(m_mutex);
    bool AskFile(Node& node) NIMBREL2_REQUIRES(m_mutex);
    void RefreshCard(const std::string& path) NIMBREL2_REQUIRES(m_mutex);
    void RefreshCards() NIMBREL2_REQUIRES(m_mutex);
    void RefreshCardsWithNews() NIMBREL2_REQUIRES(m_mutex);
    bool IsOfOneGeneration(const std::string& path) NIMBREL2_REQUIRES(m_mutex);
    Node* FindNode(const NodeKey& key) NIMBREL2_REQUIRES(m_mutex);
    Node* FindByToken(std::uint64_t token) NIMBREL2_REQUIRES(m_mutex);
    Node* FindLocal(const std::string& card) NIMBREL2_REQUIRES(m_mutex);
    std::uint32_t FindPresent(const NodeKey& key, Node** node) NIMBREL2_REQUIRES(m_mutex);
    std::uint32_t FindUsable(const NodeKey& key, Node** node) NIMBREL2_REQUIRES(m_mutex);
    std::uint32_t FindUsableLocal(const std::string& card, Node** node) NIMBREL2_REQUIRES(m_mutex);
    static std::uint32_t StatusOfFile(int error);
    static bool IsPresent(const Node& node) { return !node.hasLeft; }

    // CoreTransactions.cpp
    std::uint32_t Execute(const NodeKey& key, const Request& request, std::uint32_t* value) NIMBREL2_EXCLUDES(m_mutex);
    std::uint32_t Exchange(UniqueLock& lock, Node& node, const Request& request, TimePoint deadline,
                           std::shared_ptr<Answer>* answer) NIMBREL2_REQUIRES(m_mutex);
    std::uint32_t CatchUp(UniqueLock& lock, const NodeKey& key, std::uint8_t generation) NIMBREL2_REQUIRES(m_mutex);
    void Complete(Closure closure, std::uint32_t rcode, std::span<const std::uint8_t> payload)
        NIMBREL2_REQUIRES(m_mutex);
    void CompleteAll(std::uint64_t token) NIMBREL2_REQUIRES(m_mutex);
    void NoteAnswered(Node& node, std::uint64_t offset) NIMBREL2_REQUIRES(m_mutex);
    void NoteTimedOut(Node& node) NIMBREL2_REQUIRES(m_mutex);
    static bool IsRefused(const Node& node, const Request& request);
    void PauseProbes(Node& node) const;
    void HaveUsersEnumerate() NIMBREL2_REQUIRES(m_mutex);
    bool Pause(UniqueLock& lock, Milliseconds time) NIMBREL2_REQUIRES(m_mutex);

    // CoreReadings.cpp
    std::uint32_t ReadSerialNumber(const NodeKey& key, std::uint32_t* value) NIMBREL2_EXCLUDES(m_mutex);
    bool IsFresh(const Node& node, TimePoint now) const NIMBREL2_REQUIRES(m_mutex);
    void ReadSerialNumbers() NIMBREL2_REQUIRES(m_mutex);
    void AskSerialNumber(Node& node) NIMBREL2_REQUIRES(m_mutex);
    void AskMissingSelfIds() NIMBREL2_REQUIRES(m_mutex);
    void AskSelfIds(Node& local, Card& card) NIMBREL2_REQUIRES(m_mutex);
    int Ask(Node& node, Purpose purpose, const Request& request) NIMBREL2_REQUIRES(m_mutex);
    void FinishReading(const Answer& answer) NIMBREL2_REQUIRES(m_mutex);
    void FinishSerialNumber(Node& node, const Answer& answer) NIMBREL2_REQUIRES(m_mutex);
    void FinishRegister(Node& node, const Answer& answer) NIMBREL2_REQUIRES(m_mutex);
    void FinishSelfIds(const Node& local, const Answer& answer) NIMBREL2_REQUIRES(m_mutex);
    void KeepSelfIds(Card& card, const std::vector<SelfIdPacket_t>& packets) NIMBREL2_REQUIRES(m_mutex);
    void EndLateReadings(TimePoint now) NIMBREL2_REQUIRES(m_mutex);
    void ProbeMuteNodes(TimePoint now) NIMBREL2_REQUIRES(m_mutex);
    static bool IsProbed(const Node& node);

    // CoreBus.cpp
    std::uint32_t WaitForSelfIds(UniqueLock& lock, const std::string& path) NIMBREL2_REQUIRES(m_mutex);
    std::uint32_t CheckSelfIds(const std::string& path, Node** local) NIMBREL2_REQUIRES(m_mutex);
    std::uint32_t AskPhy(UniqueLock& lock, const NodeKey& key, std::uint32_t page, std::uint32_t port,
                         std::uint32_t address, std::optional<std::uint32_t>* value) NIMBREL2_REQUIRES(m_mutex);

    // CoreDiagnosis.cpp
    BusMap DescribeBus(const std::string& path) NIMBREL2_REQUIRES(m_mutex);
    FireWireBusDiagnosis DiagnoseBus(const std::string& path, std::uint32_t selfIdStatus) NIMBREL2_REQUIRES(m_mutex);
    std::optional<NodeKey> FindRoot(const std::string& path) NIMBREL2_REQUIRES(m_mutex);

    const Timings m_timings;
    BusEventSink& m_events;

    MonitorThread m_monitor;

    // The monitor thread's own, and Start's before there is one.
    UeventSocket m_uevents;
    bool m_hearsUevents = false;
    TimePoint m_nextLook = TimePoint::max();  ///< without an occasion

    mutable Mutex m_mutex;
    ConditionVariable m_changed;  ///< something that a listing or a reading waits for
    bool m_running NIMBREL2_GUARDED_BY(m_mutex) = false;
    std::map<std::string, Node> m_nodes NIMBREL2_GUARDED_BY(m_mutex);  ///< by the name of the file
    std::map<std::string, Card> m_cards NIMBREL2_GUARDED_BY(m_mutex);  ///< by path
    std::map<Closure, std::shared_ptr<Answer>> m_answers NIMBREL2_GUARDED_BY(m_mutex);
    Closure m_lastClosure NIMBREL2_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_lastToken NIMBREL2_GUARDED_BY(m_mutex) = 1;  ///< 1 is the uevent socket's
    std::uint64_t m_lastVisit NIMBREL2_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_resets NIMBREL2_GUARDED_BY(m_mutex) = 0;   ///< BusState::resets
    bool m_driverLoaded NIMBREL2_GUARDED_BY(m_mutex) = false;  ///< the kernel's, at the last look

    // What is to be told once it is quiet.
    std::optional<TimePoint> m_firstChange NIMBREL2_GUARDED_BY(m_mutex);
    TimePoint m_lastChange NIMBREL2_GUARDED_BY(m_mutex);
    bool m_lookWanted NIMBREL2_GUARDED_BY(m_mutex) = false;
    bool m_otherChange NIMBREL2_GUARDED_BY(m_mutex) = false;       ///< for which users must enumerate anew
    std::set<std::string> m_removed NIMBREL2_GUARDED_BY(m_mutex);  ///< names that the kernel has taken away

    std::uint64_t m_looksWanted NIMBREL2_GUARDED_BY(m_mutex) = 0;  ///< listings that wait for a look, numbered
    std::uint64_t m_looksDone NIMBREL2_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_lookStatus NIMBREL2_GUARDED_BY(m_mutex) = HAL_FAILED;  ///< why nothing has been seen so far
};

}  // namespace Nimbrel2::Platform::FireWire

#endif
