// SPDX-License-Identifier: Apache-2.0
// One IEEE 1394 bus in memory. No thread, no lock: the rig that owns it guards it.
#include "platform/rig/FireWireModel.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <utility>

#include "platform/base/SelfIds.h"
#include "platform/rig/ConfigRom.h"

namespace Nimbrel2::Platform {

namespace {

constexpr unsigned int MaxPhys = 63;  // phy id 63 is the broadcast address (IEEE 1394-1995)
constexpr unsigned int MaxPorts = 27;
constexpr unsigned int MaxGapCount = 63;
constexpr unsigned int PortsInPacketZero = 3;
constexpr unsigned int PortsInExtendedPacket = 8;
constexpr std::uint64_t ConfigRomOffset = 0xFFFFF0000400;
constexpr std::uint64_t CameraRegistersOffset = 0xFFFFF0F00000;
constexpr std::uint64_t CameraRegistersEnd = 0xFFFFF0F01000;

enum PortStatus : std::uint32_t { Absent = 0, NotConnected = 1, ToParent = 2, ToChild = 3 };

bool HasLink(PhyKind kind) { return kind != PhyKind::Repeater; }

SelfIdPacket_t ToPacket(std::uint32_t quadlet) {
    return SelfIdPacket_t{{static_cast<std::uint8_t>(quadlet >> 24), static_cast<std::uint8_t>(quadlet >> 16 & 0xFF),
                           static_cast<std::uint8_t>(quadlet >> 8 & 0xFF), static_cast<std::uint8_t>(quadlet & 0xFF)}};
}

class Validator {
public:
    Validator(const FireWireBusDescription& bus, std::string pointer) : m_bus(bus), m_pointer(std::move(pointer)) {}

    std::vector<RigProblem> Run() {
        if (m_bus.gapCount > MaxGapCount) {
            Add("/gapCount", "a gap count is at most 63, not " + std::to_string(m_bus.gapCount));
        }
        if (!m_bus.selfIds.empty()) {
            CheckSelfIds();
            return std::exchange(m_problems, {});
        }
        if (!m_bus.placedCameras.empty()) {
            Add("/placedCameras", "cameras have places among self-ID quadlets, and there are none");
        }
        CheckPhys();
        if (m_problems.empty()) {
            CheckCables();
        }
        return std::exchange(m_problems, {});
    }

    /// After Run found nothing: PHYs that are plugged in nowhere.
    std::vector<RigProblem> FindLoose() {
        const auto card = std::find_if(m_bus.phys.begin(), m_bus.phys.end(),
                                       [](const PhyDescription& phy) { return phy.kind == PhyKind::Card; });
        const std::size_t ownSet = m_setOf[static_cast<std::size_t>(card - m_bus.phys.begin())];
        for (std::size_t i = 0; i < m_setOf.size(); ++i) {
            if (m_setOf[i] != ownSet && m_bus.phys[i].plugged) {
                Add("/phys/" + std::to_string(i), "no cables join \"" + m_bus.phys[i].name +
                                                      "\" to the card; what is moved there later is \"plugged\": "
                                                      "false at first");
            }
        }
        return std::exchange(m_problems, {});
    }

private:
    void Add(const std::string& where, std::string reason) {
        m_problems.push_back({m_pointer + where, std::move(reason)});
    }

    void CheckSelfIds() {
        if (!m_bus.phys.empty() || !m_bus.cables.empty()) {
            Add("/selfIds", "a bus is given either as self-ID quadlets or as PHYs and cables, not both");
        }
        if (m_bus.selfIds.size() > std::size_t{MaxPhys} * 4) {
            Add("/selfIds", "a bus has at most 252 self-ID quadlets, not " + std::to_string(m_bus.selfIds.size()));
        }
        std::set<unsigned int> phyIds;
        for (const std::uint32_t quadlet : m_bus.selfIds) {
            phyIds.insert(quadlet >> 24 & 0x3F);
        }
        std::set<std::uint64_t> identities;
        for (std::size_t i = 0; i < m_bus.placedCameras.size(); ++i) {
            const FireWireBusDescription::PlacedCamera& placed = m_bus.placedCameras[i];
            const std::string where = "/placedCameras/" + std::to_string(i);
            if (placed.camera.kind != PhyKind::Camera && placed.camera.kind != PhyKind::Device) {
                Add(where + "/kind", "only cameras and devices have a place, not cards and repeaters");
            }
            if (phyIds.count(placed.phyId) == 0) {
                Add(where + "/phyId",
                    "no self-ID quadlet has the phy id " + std::to_string(placed.phyId) + ", or another camera has it");
            }
            phyIds.erase(placed.phyId);
            if (placed.camera.eui64 == 0 || !identities.insert(placed.camera.eui64).second) {
                Add(where + "/eui64", "\"" + placed.camera.name + "\" needs an EUI-64 that no other node has");
            }
        }
    }

    void CheckPhys() {
        if (m_bus.phys.size() > MaxPhys) {
            Add("/phys", "a bus has at most 63 PHYs, not " + std::to_string(m_bus.phys.size()));
        }
        std::size_t cards = 0;
        std::set<std::string> names;
        std::set<std::uint64_t> identities;
        for (std::size_t i = 0; i < m_bus.phys.size(); ++i) {
            const PhyDescription& phy = m_bus.phys[i];
            const std::string where = "/phys/" + std::to_string(i);
            cards += phy.kind == PhyKind::Card ? 1 : 0;
            if (phy.name.empty() || !names.insert(phy.name).second) {
                Add(where + "/name", "\"" + phy.name + "\" is empty or taken");
            }
            if (phy.ports < 1 || phy.ports > MaxPorts) {
                Add(where + "/ports", "a PHY has 1 to 27 ports, not " + std::to_string(phy.ports));
            }
            if (phy.speed > 3) {
                Add(where + "/speed", "a speed code is 0 to 3, not " + std::to_string(phy.speed));
            }
            if (phy.powerClass > 7) {
                Add(where + "/powerClass", "a power class is 0 to 7, not " + std::to_string(phy.powerClass));
            }
            if (HasLink(phy.kind) && (phy.eui64 == 0 || !identities.insert(phy.eui64).second)) {
                Add(where + "/eui64", "\"" + phy.name + "\" needs an EUI-64 that no other node has");
            }
        }
        if (cards != 1) {
            Add("/phys", "a bus has exactly one card, not " + std::to_string(cards));
        }
    }

    void CheckCables() {
        // A cable inside a set closes a loop.
        m_setOf.resize(m_bus.phys.size());
        for (std::size_t i = 0; i < m_setOf.size(); ++i) {
            m_setOf[i] = i;
        }
        std::set<std::pair<std::size_t, unsigned int>> used;
        for (std::size_t i = 0; i < m_bus.cables.size(); ++i) {
            std::size_t ends[2] = {0, 0};
            bool good = true;
            for (int side = 0; side < 2; ++side) {
                const CableEnd& end = m_bus.cables[i].ends[side];
                const std::string where = "/cables/" + std::to_string(i) + "/" + std::to_string(side);
                const auto found = std::find_if(m_bus.phys.begin(), m_bus.phys.end(),
                                                [&end](const PhyDescription& phy) { return phy.name == end.phy; });
                if (found == m_bus.phys.end()) {
                    Add(where, "no PHY of this bus is named \"" + end.phy + "\"");
                    good = false;
                    continue;
                }
                ends[side] = static_cast<std::size_t>(found - m_bus.phys.begin());
                if (end.port >= found->ports) {
                    Add(where, "\"" + end.phy + "\" has no port " + std::to_string(end.port));
                    good = false;
                } else if (!used.insert({ends[side], end.port}).second) {
                    Add(where, "port " + std::to_string(end.port) + " of \"" + end.phy + "\" has a cable already");
                    good = false;
                }
            }
            if (!good) {
                continue;
            }
            if (m_setOf[ends[0]] == m_setOf[ends[1]]) {
                Add("/cables/" + std::to_string(i), "this cable closes a loop");
                continue;
            }
            std::replace(m_setOf.begin(), m_setOf.end(), std::size_t{m_setOf[ends[1]]}, std::size_t{m_setOf[ends[0]]});
        }
    }

    const FireWireBusDescription& m_bus;
    const std::string m_pointer;
    std::vector<RigProblem> m_problems;
    std::vector<std::size_t> m_setOf;  // For each PHY its set of PHYs that cables join.
};

}  // namespace

std::vector<RigProblem> FireWireModel::Validate(const FireWireBusDescription& description, const std::string& pointer) {
    Validator validator(description, pointer);
    std::vector<RigProblem> problems = validator.Run();
    return problems.empty() && description.selfIds.empty() ? validator.FindLoose() : problems;
}

FireWireModel::FireWireModel(FireWireBusDescription description, unsigned int card)
    : m_description(std::move(description)), m_card(card) {
    if (!m_description.selfIds.empty()) {
        for (const auto& placed : m_description.placedCameras) {
            m_description.phys.push_back(placed.camera);
        }
    }
    m_phys.resize(m_description.phys.size());
    for (std::size_t i = 0; i < m_phys.size(); ++i) {
        m_phys[i].ports.resize(m_description.phys[i].ports);
        m_phys[i].rom = BuildConfigRom(m_description.phys[i]);
    }
    for (const CableDescription& cable : m_description.cables) {
        Connect(cable);
    }
    Renumber(NoPhy);
}

bool FireWireModel::Has(const std::string& name) const { return IndexOf(name) != NoPhy; }

std::size_t FireWireModel::IndexOf(const std::string& name) const {
    for (std::size_t i = 0; i < m_description.phys.size(); ++i) {
        if (m_description.phys[i].name == name) {
            return i;
        }
    }
    return NoPhy;
}

std::size_t FireWireModel::CardIndex() const {
    for (std::size_t i = 0; i < m_description.phys.size(); ++i) {
        if (m_description.phys[i].kind == PhyKind::Card) {
            return i;
        }
    }
    return NoPhy;
}

// A cable carries when both its devices are plugged in.
void FireWireModel::Connect(const CableDescription& cable) {
    const std::size_t first = IndexOf(cable.ends[0].phy);
    const std::size_t second = IndexOf(cable.ends[1].phy);
    if (m_description.phys[first].plugged && m_description.phys[second].plugged) {
        m_phys[first].ports[cable.ends[0].port] = Link{second, cable.ends[1].port};
        m_phys[second].ports[cable.ends[1].port] = Link{first, cable.ends[0].port};
    }
}

void FireWireModel::Disconnect(std::size_t phy) {
    for (Link& link : m_phys[phy].ports) {
        if (link.phy != NoPhy) {
            m_phys[link.phy].ports[link.port] = Link{};
            link = Link{};
        }
    }
}

// A device without its cable has no power, and forgets what was written to it.
void FireWireModel::LosePower(std::size_t phy) {
    m_phys[phy].registers.clear();
    m_phys[phy].forceRoot = false;
    m_phys[phy].enabledControls = 0;
}

bool FireWireModel::Plug(const std::string& name) {
    const std::size_t phy = IndexOf(name);
    if (phy == NoPhy || m_description.phys[phy].plugged) {
        return false;
    }
    m_description.phys[phy].plugged = true;
    for (const CableDescription& cable : m_description.cables) {
        if (cable.ends[0].phy == name || cable.ends[1].phy == name) {
            Connect(cable);
        }
    }
    Renumber(phy);
    return true;
}

bool FireWireModel::Unplug(const std::string& name) {
    const std::size_t phy = IndexOf(name);
    if (phy == NoPhy || !m_description.phys[phy].plugged || m_description.phys[phy].kind == PhyKind::Card) {
        return false;
    }
    m_description.phys[phy].plugged = false;
    LosePower(phy);
    Disconnect(phy);
    Renumber(NoPhy);
    return true;
}

// Whether cables lead from there to the device, and to the card only through it.
bool FireWireModel::HangsBehind(const std::string& device, const std::string& there) const {
    std::set<std::string> reached{there};
    std::size_t before = 0;
    while (before != reached.size()) {
        before = reached.size();
        for (const CableDescription& cable : m_description.cables) {
            for (int side = 0; side < 2; ++side) {
                if (cable.ends[side].phy != device && reached.count(cable.ends[side].phy) != 0) {
                    reached.insert(cable.ends[1 - side].phy);
                }
            }
        }
    }
    return there != device && reached.count(device) != 0 && reached.count(m_description.phys[CardIndex()].name) == 0;
}

std::optional<std::string> FireWireModel::Move(const std::string& name, unsigned int ownPort, const CableEnd& to) {
    if (!m_description.selfIds.empty()) {
        return "\"" + name + "\" is on a bus given as self-ID quadlets and cannot be moved";
    }
    if (name == m_description.phys[CardIndex()].name) {
        return "\"" + name + "\" is the computer's own card";
    }
    if (HangsBehind(name, to.phy)) {
        return "\"" + to.phy + "\" hangs behind \"" + name + "\", which would be a loop";
    }
    FireWireBusDescription moved = m_description;
    std::erase_if(moved.cables, [&name](const CableDescription& cable) {
        return cable.ends[0].phy == name || cable.ends[1].phy == name;
    });
    moved.cables.push_back(CableDescription{{CableEnd{name, ownPort}, to}});
    const std::vector<RigProblem> problems = Validator(moved, "").Run();  // what hung behind it may be loose now
    if (!problems.empty()) {
        return problems.front().reason;
    }
    const std::size_t phy = IndexOf(name);
    m_description.cables = std::move(moved.cables);
    m_description.phys[phy].plugged = true;
    LosePower(phy);
    Disconnect(phy);
    Connect(m_description.cables.back());
    Renumber(phy);
    return std::nullopt;
}

void FireWireModel::Reset(const std::string& initiator) { Renumber(IndexOf(initiator)); }

void FireWireModel::SetGapCount(unsigned int gapCount) { m_description.gapCount = std::min(gapCount, MaxGapCount); }

std::vector<std::size_t> FireWireModel::OnBus() const {
    std::vector<std::size_t> reached{CardIndex()};
    for (std::size_t next = 0; next < reached.size(); ++next) {
        for (const Link& link : m_phys[reached[next]].ports) {
            if (link.phy != NoPhy && std::find(reached.begin(), reached.end(), link.phy) == reached.end()) {
                reached.push_back(link.phy);
            }
        }
    }
    return reached;
}

// Tree identification: in each round every PHY with one unresolved port names the neighbour there its parent. The last
// one left is the root; of two that name each other the one that holds back wins (force root, else the contender, else
// the later in the description, as a real contention is decided by chance and stays so from reset to reset).
std::size_t FireWireModel::IdentifyRoot(const std::vector<std::size_t>& onBus) const {
    std::vector<std::size_t> unresolved = onBus;
    std::map<std::size_t, std::size_t> openPorts;
    for (const std::size_t phy : onBus) {
        openPorts[phy] = static_cast<std::size_t>(std::count_if(m_phys[phy].ports.begin(), m_phys[phy].ports.end(),
                                                                [](const Link& link) { return link.phy != NoPhy; }));
    }
    const auto holdsBack = [this](std::size_t phy) {
        return std::make_tuple(m_phys[phy].forceRoot, m_description.phys[phy].contender, phy);
    };
    while (unresolved.size() > 2) {
        std::vector<std::size_t> leaves;
        std::copy_if(unresolved.begin(), unresolved.end(), std::back_inserter(leaves),
                     [&](std::size_t phy) { return openPorts[phy] <= 1 && !m_phys[phy].forceRoot; });
        if (leaves.empty()) {  // all of them hold back, until their time is up
            std::copy_if(unresolved.begin(), unresolved.end(), std::back_inserter(leaves),
                         [&](std::size_t phy) { return openPorts[phy] <= 1; });
        }
        for (const std::size_t leaf : leaves) {
            std::erase(unresolved, leaf);
            for (const Link& link : m_phys[leaf].ports) {
                if (link.phy != NoPhy && openPorts[link.phy] > 0) {
                    --openPorts[link.phy];
                }
            }
        }
    }
    return *std::max_element(unresolved.begin(), unresolved.end(),
                             [&](std::size_t a, std::size_t b) { return holdsBack(a) < holdsBack(b); });
}

void FireWireModel::Renumber(std::size_t initiator) {
    ++m_generation;
    m_nodes.clear();
    m_selfIds.clear();
    if (!m_description.selfIds.empty()) {
        for (const std::uint32_t quadlet : m_description.selfIds) {
            m_selfIds.push_back(ToPacket(quadlet));
        }
        for (std::size_t i = 0; i < m_description.placedCameras.size(); ++i) {
            if (m_description.phys[i].plugged) {
                m_nodes.push_back(Node{&m_description.phys[i], m_description.placedCameras[i].phyId});
            }
        }
        return;
    }
    NumberSubtree(IdentifyRoot(OnBus()), NoPhy, initiator);
}

// Self identification: a PHY speaks after all its children, lowest port first, so the root gets the highest phy id.
void FireWireModel::NumberSubtree(std::size_t phy, std::size_t parent, std::size_t initiator) {
    for (const Link& link : m_phys[phy].ports) {
        if (link.phy != NoPhy && link.phy != parent) {
            NumberSubtree(link.phy, phy, initiator);
        }
    }
    const auto phyId = static_cast<unsigned int>(m_nodes.size());
    m_nodes.push_back(Node{&m_description.phys[phy], phyId});
    AppendSelfIds(phy, phyId, parent, phy == initiator);
}

void FireWireModel::AppendSelfIds(std::size_t phy, unsigned int phyId, std::size_t parent, bool initiated) {
    const PhyDescription& description = m_description.phys[phy];
    const std::vector<Link>& ports = m_phys[phy].ports;
    const auto status = [&ports, parent](std::size_t port) -> std::uint32_t {
        if (port >= ports.size()) {
            return Absent;
        }
        if (ports[port].phy == NoPhy) {
            return NotConnected;
        }
        return ports[port].phy == parent ? ToParent : ToChild;
    };
    const auto more = [&ports](std::size_t portsSoFar) -> std::uint32_t { return ports.size() > portsSoFar ? 1 : 0; };
    std::uint32_t quadlet = 0x80000000 | phyId << 24 | (HasLink(description.kind) ? 1U << 22 : 0) |
                            m_description.gapCount << 16 | description.speed << 14 |
                            (description.contender ? 1U << 11 : 0) | description.powerClass << 8 | status(0) << 6 |
                            status(1) << 4 | status(2) << 2 | (initiated ? 2U : 0U) | more(PortsInPacketZero);
    m_selfIds.push_back(ToPacket(quadlet));
    std::uint32_t sequence = 0;
    for (std::size_t first = PortsInPacketZero; first < ports.size(); first += PortsInExtendedPacket, ++sequence) {
        quadlet = 0x80800000 | phyId << 24 | sequence << 20 | more(first + PortsInExtendedPacket);
        for (std::size_t i = 0; i < PortsInExtendedPacket; ++i) {
            quadlet |= status(first + i) << (16 - 2 * i);
        }
        m_selfIds.push_back(ToPacket(quadlet));
    }
}

const FireWireModel::Node* FireWireModel::FindNode(std::uint64_t eui64) const {
    const auto found = std::find_if(m_nodes.begin(), m_nodes.end(), [eui64](const Node& node) {
        return HasLink(node.phy->kind) && node.phy->eui64 == eui64;
    });
    return found == m_nodes.end() ? nullptr : &*found;
}

FireWireBusDiagnosis FireWireModel::Diagnose() const {
    FireWireBusDiagnosis bus;
    bus.path = m_description.name;
    bus.card = m_card;
    bus.seesResets = true;
    if (auto phys = DecodeSelfIds(m_selfIds)) {
        bus.phys = std::move(*phys);
    } else {
        bus.selfIdStatus = HAL_BAD_ANSWER;
    }
    for (const FireWirePhy& phy : bus.phys) {
        bus.root = phy.phyId;
        if (phy.contender && phy.linkActive) {
            bus.busManager = bus.resourceManager = phy.phyId;
        }
        bus.hasCycleMaster = phy.linkActive;
    }
    for (const Node& node : m_nodes) {
        if (!HasLink(node.phy->kind)) {
            continue;
        }
        FireWireNode shown;
        shown.name = node.phy->name;
        shown.eui64 = node.phy->eui64;
        shown.vendor = node.phy->vendor;
        shown.model = node.phy->model;
        shown.camera = node.phy->kind == PhyKind::Camera;
        shown.local = node.phy->kind == PhyKind::Card;
        shown.cycleMasterCapable = true;
        shown.phyId = node.phyId;
        if (shown.local) {
            bus.local = node.phyId;
        }
        bus.nodes.push_back(std::move(shown));
    }
    std::sort(bus.nodes.begin(), bus.nodes.end(), [](const auto& a, const auto& b) { return a.eui64 < b.eui64; });
    return bus;
}

std::size_t FireWireModel::IndexOfNode(std::uint64_t eui64) const {
    const Node* node = FindNode(eui64);
    return node == nullptr ? NoPhy : static_cast<std::size_t>(node->phy - m_description.phys.data());
}

std::uint32_t FireWireModel::ReadQuadlet(std::uint64_t eui64, std::uint64_t offset, std::uint32_t* value) const {
    const std::size_t index = IndexOfNode(eui64);
    if (index == NoPhy) {
        return HAL_GONE;
    }
    const Phy& phy = m_phys[index];
    if (offset % 4 != 0) {
        return HAL_INVALID_ARGUMENT;
    }
    if (offset >= ConfigRomOffset && offset < ConfigRomOffset + 4 * phy.rom.size()) {
        *value = phy.rom[(offset - ConfigRomOffset) / 4];
        return HAL_OK;
    }
    if (m_description.phys[index].kind != PhyKind::Camera || offset < CameraRegistersOffset ||
        offset >= CameraRegistersEnd) {
        return HAL_NO_SUCH_REGISTER;
    }
    const auto found = phy.registers.find(offset);
    *value = found == phy.registers.end() ? 0 : found->second;
    return HAL_OK;
}

std::uint32_t FireWireModel::WriteQuadlet(std::uint64_t eui64, std::uint64_t offset, std::uint32_t value) {
    std::uint32_t before = 0;
    const std::uint32_t status = ReadQuadlet(eui64, offset, &before);
    if (status != HAL_OK) {
        return status;
    }
    if (offset < CameraRegistersOffset) {
        return HAL_WRITE_PROTECTED;  // the configuration ROM
    }
    m_phys[IndexOfNode(eui64)].registers[offset] = value;
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform
