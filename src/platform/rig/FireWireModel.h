// SPDX-License-Identifier: Apache-2.0
// One IEEE 1394 bus in memory: PHYs, cables, node numbers, self-ID packets, configuration ROMs and registers.
#ifndef NIMBREL2_PLATFORM_RIG_FIREWIREMODEL_H
#define NIMBREL2_PLATFORM_RIG_FIREWIREMODEL_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/FireWireDiagnostics.h"
#include "platform/rig/RigDescription.h"

namespace Nimbrel2::Platform {

/// A bus whose nodes are numbered as real ones are: tree identification from the leaves inwards picks the root, then
/// every PHY sends its self-ID packets after those of its children, lowest port first (IEEE 1394-1995 4.4.2, annex E).
/// PHYs that no chain of cables joins to the card are not on the bus.
/// @par Threads  None of its own, no lock: the rig that owns it guards it.
class FireWireModel {
public:
    /// @param pointer  Where the description stands in its file, for the problems.
    static std::vector<RigProblem> Validate(const FireWireBusDescription& description, const std::string& pointer);

    /// @pre Validate found nothing. The bus starts with one reset done.
    FireWireModel(FireWireBusDescription description, unsigned int card);

    unsigned int Card() const { return m_card; }
    std::uint32_t Generation() const { return m_generation; }
    bool Has(const std::string& name) const;

    // ---- What happens to the bus. Each but the last ends in a bus reset that renumbers; false: nothing changed. -----
    bool Plug(const std::string& name);
    bool Unplug(const std::string& name);
    /// Takes the device's cables off and joins ownPort to a port of another PHY. A problem: the port is taken or
    /// absent, or the cable would close a loop.
    std::optional<std::string> Move(const std::string& name, unsigned int ownPort, const CableEnd& to);
    void Reset(const std::string& initiator);
    /// Gap count of all PHYs, as a PHY configuration packet sets it. No reset.
    void SetGapCount(unsigned int gapCount);

    // ---- What the bus shows -----------------------------------------------------------------------------------------
    struct Node {
        const PhyDescription* phy = nullptr;
        unsigned int phyId = 0;
    };
    /// The PHYs on the bus in ascending phy id; the last is the root. Of a bus of raw self-IDs: the placed cameras.
    const std::vector<Node>& Nodes() const { return m_nodes; }
    /// Null when no node on the bus has that EUI-64.
    const Node* FindNode(std::uint64_t eui64) const;
    const std::vector<SelfIdPacket_t>& SelfIds() const { return m_selfIds; }
    /// The contender with the highest phy id manages the bus; the root sends cycle starts if it has a link.
    FireWireBusDiagnosis Diagnose() const;

    /// Statuses as for HAL_1394ReadRegister and the others. eui64 names the node, offset is the 48-bit one.
    std::uint32_t ReadQuadlet(std::uint64_t eui64, std::uint64_t offset, std::uint32_t* value) const;
    std::uint32_t WriteQuadlet(std::uint64_t eui64, std::uint64_t offset, std::uint32_t value);
    std::uint32_t ReadPhy(std::uint64_t eui64, std::uint32_t page, std::uint32_t port, std::uint32_t address,
                          std::uint32_t* value) const;
    /// resetAsked tells that the write set IBR or ISBR: the caller resets the bus.
    std::uint32_t WritePhy(std::uint64_t eui64, std::uint32_t page, std::uint32_t port, std::uint32_t address,
                           std::uint32_t value, bool* resetAsked);

private:
    static constexpr std::size_t NoPhy = ~std::size_t{0};

    struct Link {
        std::size_t phy = NoPhy;  // The PHY at the other end, NoPhy when nothing is connected.
        unsigned int port = 0;
    };
    struct Phy {
        std::vector<Link> ports;
        bool forceRoot = false;
        std::vector<std::uint32_t> rom;
        std::map<std::uint64_t, std::uint32_t> registers;  // Written camera registers, by offset.
        std::uint8_t enabledControls = 0;                  // PHY register 5
    };
    std::size_t IndexOf(const std::string& name) const;
    void Connect(const CableDescription& cable);
    void Disconnect(std::size_t phy);
    bool HangsBehind(const std::string& device, const std::string& there) const;
    void LosePower(std::size_t phy);
    std::size_t CardIndex() const;
    std::vector<std::size_t> OnBus() const;
    std::size_t IdentifyRoot(const std::vector<std::size_t>& onBus) const;
    void Renumber(std::size_t initiator);
    void NumberSubtree(std::size_t phy, std::size_t parent, std::size_t initiator);
    void AppendSelfIds(std::size_t phy, unsigned int phyId, std::size_t parent, bool initiated);
    /// NoPhy when no node on the bus has that EUI-64.
    std::size_t IndexOfNode(std::uint64_t eui64) const;

    FireWireBusDescription m_description;
    unsigned int m_card;
    std::uint32_t m_generation = 0;
    std::vector<Phy> m_phys;  // As m_description.phys.
    std::vector<Node> m_nodes;
    std::vector<SelfIdPacket_t> m_selfIds;
};

}  // namespace Nimbrel2::Platform

#endif
