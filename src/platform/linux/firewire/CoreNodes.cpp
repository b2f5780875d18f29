// SPDX-License-Identifier: Apache-2.0
// Which nodes there are, their files, and who has left. Look and OpenFiles: the monitor thread, or Start before there
// is one; the rest: any thread with m_mutex.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/base/Errno.h"
#include "platform/linux/firewire/FireWireCore.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

/// Generations count modulo 256; no bus is reset 128 times before anybody looks.
bool IsNewer(std::uint8_t generation, std::uint8_t than) {
    const auto ahead = static_cast<std::uint8_t>(generation - than);
    return ahead != 0 && ahead < 128;
}

}  // namespace

// Scans sysfs, takes over what has changed and opens the files of newcomers.
void FireWireCore::Look() {
    m_nextLook = m_hearsUevents ? TimePoint::max() : Clock::now() + m_timings.lookPeriod;
    {
        const LockGuard lock(m_mutex);
        if (m_lookWanted) {
            // What the kernel tells of nodes, udev hears too, and acts upon a little later.
            for (auto& [name, node] : m_nodes) {
                node.openPause = Milliseconds(0);
                if (!node.IsOpen()) {
                    node.nextOpen = TimePoint::min();
                }
            }
        }
        m_lookWanted = false;
        // Before the scan: what it finds under these names came after.
        while (!m_removed.empty()) {
            DropNode(*m_removed.begin());
            m_removed.erase(m_removed.begin());
        }
    }
    std::vector<ScannedNode> found;
    try {
        const int error = ScanNodes(&found);
        const LockGuard lock(m_mutex);
        // Of what has no driver there is nothing to see, which is no failure.
        if (error == 0 || error == ENOENT) {
            m_driverLoaded = error == 0;
            Merge(found);
            m_lookStatus = HAL_OK;
        } else {
            // What is known is better than nothing. The next listing tries again, and so does the monitor.
            m_lookWanted = true;
            m_nextLook = Clock::now() + m_timings.lookPeriod;
            if (m_lookStatus != HAL_OK) {
                m_lookStatus = StatusOfErrno(error);
            }
        }
    } catch (...) {
        const LockGuard lock(m_mutex);
        NoteChange(true);
        throw;
    }
    OpenFiles();
}

void FireWireCore::Merge(std::vector<ScannedNode>& found) {
    std::set<std::string> names;
    for (ScannedNode& scanned : found) {
        names.insert(scanned.name);
        const auto known = m_nodes.find(scanned.name);
        if (known != m_nodes.end()) {
            Node& node = known->second;
            const bool isSame = node.scanned.inode == scanned.inode && node.scanned.card == scanned.card &&
                                node.scanned.isLocal == scanned.isLocal;
            if (isSame && node.scanned.rom == scanned.rom) {
                continue;
            }
            std::optional<RomInfo> rom = ParseConfigRom(scanned.rom);
            if (isSame && rom && rom->eui64 == node.key.eui64) {
                // The same node with another content: units and texts may differ.
                node.scanned = std::move(scanned);
                if (node.rom != *rom) {
                    node.rom = std::move(*rom);
                    m_otherChange = true;
                    NoteChange(false);
                }
                continue;
            }
            DropNode(known->first);
        }
        // A node whose ROM does not even tell its EUI-64 cannot be told from others.
        if (auto rom = ParseConfigRom(scanned.rom)) {
            AddNode(scanned, std::move(*rom));
        }
    }
    std::vector<std::string> gone;
    for (const auto& [name, node] : m_nodes) {
        if (names.count(name) == 0) {
            gone.push_back(name);
        }
    }
    for (const std::string& name : gone) {
        DropNode(name);
    }
}

void FireWireCore::AddNode(ScannedNode& scanned, RomInfo rom) {
    if (const auto [card, isNew] = m_cards.try_emplace(scanned.card); isNew) {
        card->second.seenAt = Clock::now();
    }
    Node node;
    node.key = {scanned.card, rom.eui64};
    node.rom = std::move(rom);
    node.scanned = std::move(scanned);
    node.visit = ++m_lastVisit;
    node.nextOpen = TimePoint::min();
    const std::string name = node.scanned.name;
    m_nodes.insert_or_assign(name, std::move(node));
    NoteChange(false);
}

void FireWireCore::DropNode(const std::string& name) {
    const auto found = m_nodes.find(name);
    if (found == m_nodes.end()) {
        return;
    }
    DropFile(found->second, ENODEV);
    const auto dropped = m_nodes.extract(found);  // which takes no memory
    NoteChange(false);
    const std::string& card = dropped.mapped().key.card;
    const bool isLast = std::none_of(m_nodes.begin(), m_nodes.end(),
                                     [&card](const auto& entry) { return entry.second.key.card == card; });
    if (isLast) {
        m_cards.erase(card);
    }
}

// The files of all nodes that have none, if it is time to try. Opened without the lock, for the kernel may have to
// wait.
void FireWireCore::OpenFiles() {
    struct Wanted {
        std::string name;
        std::uint64_t eui64 = 0;
        std::shared_ptr<NodeFile> file;
        NodeInfo info;
        int error = 0;
    };
    std::vector<Wanted> wanted;
    {
        const LockGuard lock(m_mutex);
        const TimePoint now = Clock::now();
        for (auto& [name, node] : m_nodes) {
            if (!node.IsOpen() && now >= node.nextOpen) {
                wanted.push_back({name, node.key.eui64, nullptr, {}, 0});
            }
        }
    }
    for (Wanted& one : wanted) {
        one.file = std::make_shared<NodeFile>();
        std::vector<std::uint32_t> rom;
        one.error = one.file->Open(one.name);
        if (one.error == 0) {
            one.error = one.file->GetInfo(&one.info, &rom);
        }
        // The name may have got a new owner since the scan: the next one finds it.
        const auto opened = ParseConfigRom(rom);
        if (one.error == 0 && (!opened || opened->eui64 != one.eui64)) {
            one.error = ENODEV;
        }
        if (one.error != 0) {
            one.file.reset();
        }
    }
    const LockGuard lock(m_mutex);
    for (Wanted& one : wanted) {
        const auto found = m_nodes.find(one.name);
        if (found == m_nodes.end()) {
            continue;
        }
        Node& node = found->second;
        if (one.error == 0) {
            one.error = AdoptFile(node, std::move(one.file), one.info);
        }
        if (one.error == 0) {
            continue;
        }
        node.openError = one.error;
        node.openPause = std::clamp(2 * node.openPause, m_timings.openPause, m_timings.openPauseMax);
        node.nextOpen = Clock::now() + node.openPause;
    }
}

int FireWireCore::AdoptFile(Node& node, std::shared_ptr<NodeFile> file, const NodeInfo& info) {
    const std::uint64_t token = m_lastToken + 1;
    const int error = m_monitor.GetPoller().Add(file->GetFd(), token);
    if (error != 0) {
        return error;
    }
    m_lastToken = token;
    node.token = token;
    node.file = std::move(file);
    node.receivesPhyPackets = false;
    // The kernel had given it up, and has another one now that is the same device.
    if (node.hasLeft) {
        node.visit = ++m_lastVisit;
        node.StartAnew();
    }
    // Who listed it meanwhile did not get its numbers.
    if (node.openError != 0 && !node.scanned.isLocal) {
        m_otherChange = true;
    }
    node.hasLeft = false;
    node.openError = 0;
    node.openPause = Milliseconds(0);
    NoteChange(false);
    m_cards[node.key.card].number = info.card;
    NoteInfo(node, info.ids);
    return 0;
}

// A file that the kernel has given up, or that is not ours any more.
void FireWireCore::DropFile(Node& node, int error) {
    if (!node.IsOpen()) {
        return;
    }
    m_monitor.GetPoller().Remove(node.file->GetFd());
    CompleteAll(node.token);
    node.file.reset();
    node.token = 0;
    node.openError = error;
    node.openPause = m_timings.openPause;
    node.nextOpen = Clock::now() + node.openPause;
    node.hasLeft = true;
    node.serialNumber = {};
    if (node.scanned.isLocal) {
        m_cards[node.key.card].selfIds = {};
    }
}

void FireWireCore::OnReset(Node& node, const BusIds& ids) {
    NoteChange(false);
    if (IsNewer(node.ids.generation, ids.generation)) {
        AskFile(node);  // the event has waited, and the file was asked meanwhile
    } else {
        NoteInfo(node, ids);
    }
}

// What a node's own file has told: in an event, or when it was asked.
void FireWireCore::NoteInfo(Node& node, const BusIds& ids) {
    Card& card = m_cards[node.key.card];
    if (!card.known || IsNewer(ids.generation, card.ids.generation)) {
        Advance(card, ids);
    }
    node.ids = ids;
    if (ids.generation != card.ids.generation) {
        return;
    }
    card.ids = ids;  // a bus manager is found some time after the reset
    if (!node.hasLeft) {
        return;
    }
    node.hasLeft = false;
    node.StartAnew();
    NoteChange(false);
}

// The bus has been reset.
void FireWireCore::Advance(Card& card, const BusIds& ids) {
    // A controller that counts anew does not tell how many resets it has seen.
    const bool isNewer = IsNewer(ids.generation, card.ids.generation);
    const auto numResets = static_cast<std::uint8_t>(isNewer ? ids.generation - card.ids.generation : 1);
    const TimePoint now = Clock::now();
    if (card.known) {
        NoteChange(false);
        card.resetTimes.insert(card.resetTimes.end(), numResets, now);  // the memory first
        card.resets += numResets;
    }
    card.known = true;
    card.ids = ids;
    while (!card.resetTimes.empty() && now - card.resetTimes.front() > m_timings.history) {
        card.resetTimes.pop_front();
    }
}

// @return false when the kernel has given the node up.
bool FireWireCore::AskFile(Node& node) {
    NodeInfo info;
    const int error = node.file->GetInfo(&info);
    if (error == 0) {
        NoteInfo(node, info.ids);
        return true;
    }
    DropFile(node, error);
    NoteChange(true);
    return false;
}

// Which nodes of a bus are behind it. The kernel updates all nodes that are still there at once, so one that has the
// generation of an earlier reset was not there in the last one.
void FireWireCore::RefreshCard(const std::string& path) {
    std::vector<Node*> open;
    for (auto& [name, node] : m_nodes) {
        if (node.IsOpen() && node.key.card == path) {
            open.push_back(&node);
        }
    }
    // The controller itself never leaves its bus. Without it each node is asked, and the newest generation counts.
    const Node* local = nullptr;
    for (Node* node : open) {
        if (node->scanned.isLocal && AskFile(*node)) {
            local = node;
        }
    }
    for (Node* node : open) {
        if (local == nullptr && node->IsOpen()) {
            AskFile(*node);
        }
    }
    std::erase_if(open, [](const Node* node) { return !node->IsOpen(); });
    if (open.empty()) {
        return;
    }

    // A controller that slept may begin to count anew.
    Card& card = m_cards[path];
    const auto isUpToDate = [&card](const Node* node) { return node->ids.generation == card.ids.generation; };
    if (local == nullptr && std::none_of(open.begin(), open.end(), isUpToDate)) {
        local = open.front();
    }
    if (local != nullptr && !isUpToDate(local)) {
        Advance(card, local->ids);
    }

    for (Node* node : open) {
        // Its event may not have been read yet, or come late: a node that itself asked for the reset is read anew
        // first.
        if (isUpToDate(node) || !AskFile(*node) || isUpToDate(node) || node->hasLeft) {
            continue;
        }
        node->hasLeft = true;
        CompleteAll(node->token);  // the kernel would give up two seconds later
        NoteChange(false);
    }
}

// False when the bus was reset while its nodes were asked.
bool FireWireCore::IsOfOneGeneration(const std::string& path) {
    const std::uint8_t generation = m_cards[path].ids.generation;
    return std::all_of(m_nodes.begin(), m_nodes.end(), [&](const auto& entry) {
        const Node& node = entry.second;
        return node.key.card != path || !node.IsOpen() || !IsPresent(node) || node.ids.generation == generation;
    });
}

void FireWireCore::RefreshCards() {
    for (const auto& [path, card] : m_cards) {
        RefreshCard(path);
    }
}

// The buses that were reset a moment ago. Each of their files has an event for that: one look suffices where it can be
// the controller's, which never leaves its bus.
void FireWireCore::RefreshCardsWithNews() {
    for (const auto& [path, card] : m_cards) {
        const Node* local = FindLocal(path);
        const bool isOfLocal = local != nullptr && local->IsOpen();
        const bool hasNews = std::any_of(m_nodes.begin(), m_nodes.end(), [&, &bus = path](const auto& entry) {
            const Node& node = entry.second;
            const bool isWatched = isOfLocal ? &node == local : node.IsOpen() && node.key.card == bus;
            return isWatched && node.file->HasEvent();
        });
        if (hasNews) {
            RefreshCard(path);
        }
    }
}

// The one that is there, when a node that has left still has a file and is back under another name.
FireWireCore::Node* FireWireCore::FindNode(const NodeKey& key) {
    Node* found = nullptr;
    for (auto& [name, node] : m_nodes) {
        if (node.key.eui64 == key.eui64 && node.key.card == key.card && (found == nullptr || !IsPresent(*found))) {
            found = &node;
        }
    }
    return found;
}

FireWireCore::Node* FireWireCore::FindByToken(std::uint64_t token) {
    for (auto& [name, node] : m_nodes) {
        if (node.IsOpen() && node.token == token) {
            return &node;
        }
    }
    return nullptr;
}

FireWireCore::Node* FireWireCore::FindLocal(const std::string& card) {
    for (auto& [name, node] : m_nodes) {
        if (node.scanned.isLocal && node.key.card == card) {
            return &node;
        }
    }
    return nullptr;
}

std::uint32_t FireWireCore::FindPresent(const NodeKey& key, Node** node) {
    if (!m_running) {
        return HAL_CLOSED;
    }
    *node = FindNode(key);
    if (*node != nullptr && !IsPresent(**node) && (*node)->IsOpen()) {
        // It may be back, and nobody has heard of it yet.
        RefreshCard(key.card);
        m_monitor.Wake();
        *node = FindNode(key);
    }
    return *node != nullptr && IsPresent(**node) ? HAL_OK : HAL_GONE;
}

std::uint32_t FireWireCore::FindUsable(const NodeKey& key, Node** node) {
    const std::uint32_t status = FindPresent(key, node);
    if (status != HAL_OK || (*node)->IsOpen()) {
        return status;
    }
    return StatusOfFile((*node)->openError);
}

std::uint32_t FireWireCore::FindUsableLocal(const std::string& card, Node** node) {
    if (!m_running) {
        return HAL_CLOSED;
    }
    *node = FindLocal(card);
    if (*node == nullptr) {
        return HAL_GONE;
    }
    return (*node)->IsOpen() ? static_cast<std::uint32_t>(HAL_OK) : StatusOfFile((*node)->openError);
}

std::uint32_t FireWireCore::StatusOfFile(int error) {
    // 0: it has just come, and its file is being opened.
    if (error == 0) {
        return HAL_BUSY;
    }
    return error == ENODEV ? static_cast<std::uint32_t>(HAL_GONE) : StatusOfErrno(error);
}

}  // namespace Nimbrel2::Platform::FireWire
