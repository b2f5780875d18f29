// SPDX-License-Identifier: Apache-2.0
// IEEE 1394 buses as the kernel shows them: a /sys, a /dev and uevents that a test owns, with files that can be polled
// and read like the kernel's. What happens on the wires comes from the model that rigs use; this adds what the kernel
// makes of it: generations, two seconds of grace (which a test ends), events per open file, transactions.
//
// Programs that are linked with the library that redirects file operations see these buses, and so do children that
// have GetEnvironment().
#ifndef NIMBREL2_TESTS_SUPPORT_EMULATEDFIREWIRE_H
#define NIMBREL2_TESTS_SUPPORT_EMULATEDFIREWIRE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/rig/RigDescription.h"

namespace Nimbrel2::Testing {

/// What a program does with a node's file.
enum class FileCall { GetInfo, SendRequest, ResetBus, ReceivePhyPackets, SendPhyPacket, Read };

class EmulatedFireWire {
public:
    /// No bus, and no driver loaded. One at a time in a process.
    EmulatedFireWire();
    ~EmulatedFireWire();
    EmulatedFireWire(const EmulatedFireWire&) = delete;
    EmulatedFireWire& operator=(const EmulatedFireWire&) = delete;

    /// Variables that make a child see the buses, "NAME=value".
    std::vector<std::string> GetEnvironment() const;

    /// The kernel's driver is loaded, with no bus so far.
    void LoadDriver();
    /// A controller on the PCI bus that no driver serves.
    void AddIdleController(const std::string& pciName);
    /// A controller with its bus, and the driver if it is not loaded. Names of PHYs are unique over all buses.
    /// @param pciName  Where it is, "0000:06:01.0".
    void AddBus(const Platform::FireWireBusDescription& bus, const std::string& pciName);
    /// Takes the controller out, with all its nodes.
    void RemoveBus(const std::string& pciName);

    // ---- On the bus. Nodes are named as the description names their PHYs. ------------------------------------------

    /// A cable is plugged in: a bus reset, and a node that the kernel announces unless it knows it from its grace.
    void Plug(const std::string& phy);
    /// The same without the announcement, which the kernel makes half a second later.
    void PlugUnannounced(const std::string& phy);
    void Announce(const std::string& phy);
    /// A bus reset. The kernel keeps the node's file until Forget.
    void Unplug(const std::string& phy);
    /// Its grace is over.
    void Forget(const std::string& phy);
    /// A bus reset that nobody on this computer asked for.
    void Reset(const std::string& phy);
    /// The same, after which the controller counts generations anew, as after it has slept.
    void ResetAndCountAnew(const std::string& phy);
    /// How many resets the bus of that node has seen.
    unsigned int CountResets(const std::string& phy) const;

    // ---- How a node answers ----------------------------------------------------------------------------------------

    /// It answers no request: the kernel ends each after two seconds, or after the time given.
    void SetMute(const std::string& phy, bool mute, std::chrono::milliseconds kernelTimeOut = std::chrono::seconds(2));
    /// It answers every request but those for that register.
    void SetRegisterMute(const std::string& phy, std::uint64_t offset, bool mute,
                         std::chrono::milliseconds kernelTimeOut = std::chrono::seconds(2));
    /// The end of its next requests, count of them.
    void AnswerWith(const std::string& phy, std::uint32_t rcode, int count);
    /// Its next answers bring that many octets.
    void CutAnswers(const std::string& phy, std::size_t octets);
    /// The events of its resets wait until this is called with false.
    void HoldResetEvents(const std::string& phy, bool hold);
    /// PHY packets that ask it get no reply.
    void SetPhyMute(const std::string& phy, bool mute);

    /// The node leaves, and the kernel gives it up, in the middle of the next such call on its file.
    void VanishIn(const std::string& phy, FileCall call);
    /// The bus is reset in the middle of the next such call on its file.
    void ResetIn(const std::string& phy, FileCall call);

    /// Nobody may open its file, but who may override permissions. The mocking library lets a process have fifty files
    /// of devices, and counts those too that it fails to open.
    void Deny(const std::string& phy);
    void Allow(const std::string& phy);
    /// All calls on its file fail from the beginning, so that a program has no use for it: for large buses.
    void Break(const std::string& phy);
    /// The kernel tells that it changed, without a change.
    void SendChangeUevent(const std::string& phy);

    std::uint32_t GetRegister(const std::string& phy, std::uint64_t offset) const;
    void SetRegister(const std::string& phy, std::uint64_t offset, std::uint32_t value);
    /// Another configuration ROM, in host order, from the next announcement on; before its bus is added, too.
    void SetRom(const std::string& phy, std::vector<std::uint32_t> rom);
    /// The same at once: the kernel has read it anew after a reset, and tells.
    void ChangeRom(const std::string& phy, std::vector<std::uint32_t> rom);

    /// Requests that were sent to it for that offset.
    unsigned int CountRequests(const std::string& phy, std::uint64_t offset) const;
    /// How many files of this process are the node's.
    unsigned int CountClients(const std::string& phy) const;
    /// Whether a program has opened its file, or does so now.
    bool HasBeenOpened(const std::string& phy) const;
    /// "fw1"; empty when it has none.
    std::string GetFileName(const std::string& phy) const;
    /// As it is on the bus now.
    unsigned int GetPhyId(const std::string& phy) const;

private:
    class State;
    std::unique_ptr<State> m_state;
};

/// The calling thread, and threads that it starts, may not override permissions while this lives.
class NoPermissionOverride {
public:
    NoPermissionOverride();
    ~NoPermissionOverride();
    NoPermissionOverride(const NoPermissionOverride&) = delete;
    NoPermissionOverride& operator=(const NoPermissionOverride&) = delete;

private:
    std::uint32_t m_effective[2] = {0, 0};
};

}  // namespace Nimbrel2::Testing

#endif
