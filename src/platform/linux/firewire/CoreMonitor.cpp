// SPDX-License-Identifier: Apache-2.0
// The monitor thread: reads what the kernel tells of nodes and buses, waits until a burst of it is over, and reports.
// Takes m_mutex for each step; never waits with it.
#include <algorithm>
#include <cerrno>

#include "platform/base/Errno.h"
#include "platform/linux/firewire/FireWireCore.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

constexpr std::uint64_t UeventsToken = 1;
// What one file may take of the monitor's time before the others and the deadlines have their turn.
constexpr int EventBudget = 64;

}  // namespace

FireWireCore::FireWireCore(const Timings& timings, BusEventSink& events) : m_timings(timings), m_events(events) {}

FireWireCore::~FireWireCore() { Stop(); }

std::uint32_t FireWireCore::Start() {
    if (const std::uint32_t status = m_monitor.Open(); status != HAL_OK) {
        return status;
    }
    // Heard before anything is looked at, so that nothing can happen unseen in between. Who cannot hear looks every
    // now and then.
    m_hearsUevents = m_uevents.Open() == 0 && UeventsReachUs();
    if (m_uevents.IsOpen()) {
        const int error = m_monitor.GetPoller().Add(m_uevents.GetFd(), UeventsToken);
        if (error != 0) {
            return StatusOfErrno(error);
        }
    }
    {
        const LockGuard lock(m_mutex);
        m_running = true;
    }
    // Here and not on the monitor thread, so that a listing that follows knows the numbers of the nodes.
    Look();
    {
        const LockGuard lock(m_mutex);
        Report(false);
        AskMissingSelfIds();
    }
    // What a turn that runs out of memory leaves undone is still marked to be done.
    const std::uint32_t status = m_monitor.Start("1394-monitor", [this] { MonitorTurn(); });
    if (status != HAL_OK) {
        const LockGuard lock(m_mutex);
        m_running = false;
    }
    return status;
}

void FireWireCore::Stop() {
    {
        const LockGuard lock(m_mutex);
        if (!m_running) {
            return;
        }
        m_running = false;
        for (const auto& [closure, answer] : m_answers) {
            answer->done.NotifyAll();
        }
        m_changed.NotifyAll();
    }
    m_monitor.Stop();
    // Entries may outlive the driver, files must not.
    const LockGuard lock(m_mutex);
    m_nodes.clear();
}

void FireWireCore::MonitorTurn() {
    std::vector<std::uint64_t> ready;
    m_monitor.GetPoller().Wait(DoWhatIsDue(), &ready);
    for (const std::uint64_t token : ready) {
        if (token == UeventsToken) {
            HearUevents();
        } else {
            ReadEvents(token);
        }
    }
}

TimePoint FireWireCore::DoWhatIsDue() {
    const TimePoint now = Clock::now();
    std::uint64_t looksWanted = 0;
    bool isListing = false;
    {
        const LockGuard lock(m_mutex);
        looksWanted = m_looksWanted;
        isListing = looksWanted != m_looksDone;
    }
    if (isListing) {
        // What has not been told since the last look need not be looked for in sysfs.
        HearUevents();
    }
    bool isSettled = false;
    bool look = now >= m_nextLook || (isListing && !m_hearsUevents);
    {
        const LockGuard lock(m_mutex);
        isSettled = m_firstChange && now >= GetSettleTime();
        look = look || ((isSettled || isListing) && m_lookWanted);
        for (const auto& [name, node] : m_nodes) {
            look = look || (!node.IsOpen() && now >= node.nextOpen);
        }
    }
    if (look) {
        Look();
    }
    const LockGuard lock(m_mutex);
    EndLateReadings(now);
    ProbeMuteNodes(now);
    // A look that nobody had an occasion for may have found a change too.
    isSettled = isSettled || (m_firstChange && now >= GetSettleTime());
    if (isListing && !m_firstChange) {
        RefreshCardsWithNews();
    }
    if (m_firstChange && (isSettled || isListing)) {
        Settle(isSettled);
    }
    if (isListing) {
        m_looksDone = looksWanted;
        m_changed.NotifyAll();
    }
    return GetNextDeadline();
}

TimePoint FireWireCore::GetNextDeadline() const {
    if (m_looksWanted != m_looksDone) {
        return Clock::now();
    }
    TimePoint next = m_nextLook;
    if (m_firstChange) {
        next = std::min(next, GetSettleTime());
    }
    for (const auto& [name, node] : m_nodes) {
        if (!node.IsOpen()) {
            next = std::min(next, node.nextOpen);
        } else if (IsProbed(node)) {
            next = std::min(next, node.nextProbe);
        }
    }
    for (const auto& [closure, answer] : m_answers) {
        if (answer->purpose != Purpose::Caller) {
            next = std::min(next, answer->owedSince + m_timings.answer);
        }
    }
    return next;
}

void FireWireCore::HearUevents() {
    Uevent event;
    while (true) {
        const UeventSocket::Receipt receipt = m_uevents.Receive(&event);
        if (receipt == UeventSocket::Receipt::Nothing) {
            return;
        }
        const LockGuard lock(m_mutex);
        if (receipt == UeventSocket::Receipt::Lost) {
            NoteChange(true);
            continue;
        }
        if (event.subsystem != "firewire") {
            continue;
        }
        NoteChange(true);
        if (event.action == "remove") {
            // Another node may have the name by the time that anybody looks.
            m_removed.emplace(event.devicePath.substr(event.devicePath.rfind('/') + 1));
        }
    }
}

void FireWireCore::ReadEvents(std::uint64_t token) {
    std::shared_ptr<NodeFile> file;
    {
        const LockGuard lock(m_mutex);
        const Node* node = FindByToken(token);
        if (node == nullptr) {
            return;
        }
        file = node->file;
    }
    int error = 0;
    for (int i = 0; i < EventBudget && error == 0; ++i) {
        NodeEvent event;
        error = file->ReadEvent(&event);
        if (error == 0) {
            OnEvent(token, event);
        }
    }
    if (error == 0 || error == EAGAIN) {
        return;
    }
    const LockGuard lock(m_mutex);
    if (Node* node = FindByToken(token)) {
        DropFile(*node, error);
        NoteChange(true);
    }
}

void FireWireCore::OnEvent(std::uint64_t token, const NodeEvent& event) {
    const LockGuard lock(m_mutex);
    if (const auto* reset = std::get_if<BusResetEvent>(&event)) {
        if (Node* node = FindByToken(token)) {
            OnReset(*node, reset->ids);
        }
    } else if (const auto* response = std::get_if<ResponseEvent>(&event)) {
        Complete(response->closure, response->rcode, response->payload);
    } else if (const auto* packet = std::get_if<PhyPacketEvent>(&event)) {
        OnPhyPacket(*packet);
    }
}

void FireWireCore::OnPhyPacket(const PhyPacketEvent& event) {
    if (!event.received) {
        Complete(event.closure, event.rcode, {});
        return;
    }
    for (const auto& [closure, answer] : m_answers) {
        if (answer->phyReply != (event.quadlet & ~0xFFU)) {
            continue;
        }
        answer->phyValue = event.quadlet & 0xFF;
        answer->done.NotifyAll();
    }
}

void FireWireCore::NoteChange(bool lookToo) {
    m_lastChange = Clock::now();
    if (!m_firstChange) {
        m_firstChange = m_lastChange;
    }
    m_lookWanted = m_lookWanted || lookToo;
}

TimePoint FireWireCore::GetSettleTime() const {
    return std::min(m_lastChange + m_timings.quiet, *m_firstChange + m_timings.quietMax);
}

// Who is there now, and what follows from it. In the middle of a burst, where a listing looks, more is to come.
void FireWireCore::Settle(bool burstIsOver) {
    RefreshCards();
    bool wasReset = false;
    for (auto& [path, card] : m_cards) {
        wasReset = wasReset || card.resets != card.settledResets;
        card.settledResets = card.resets;
    }
    m_otherChange = m_otherChange || wasReset;
    if (m_otherChange) {
        ++m_resets;
    }
    m_otherChange = false;
    Report(burstIsOver);
    m_firstChange.reset();
    // Told first, read afterwards: whoever enumerates now waits for these readings, and nobody for those who answer
    // late.
    if (wasReset) {
        ReadSerialNumbers();
    }
    AskMissingSelfIds();
}

void FireWireCore::Report(bool burstIsOver) {
    if (!m_running) {
        return;
    }
    if (burstIsOver) {
        m_events.ReportSettled(GetState());
    } else {
        m_events.Report(GetState());
    }
}

BusState FireWireCore::GetState() const {
    BusState state;
    state.resets = m_resets;
    std::set<NodeKey> seen;
    for (const auto& [name, node] : m_nodes) {
        if (node.scanned.isLocal || !IsPresent(node) || !seen.insert(node.key).second) {
            continue;
        }
        PresentDevice device;
        device.identity = node.key.card + "/" + std::to_string(node.key.eui64);
        device.version = node.visit;
        if (node.FindCamera() == nullptr) {
            device.firstWord = static_cast<std::uint32_t>(node.key.eui64 >> 32);
            device.secondWord = static_cast<std::uint32_t>(node.key.eui64);
        }
        state.devices.push_back(std::move(device));
    }
    return state;
}

}  // namespace Nimbrel2::Platform::FireWire
