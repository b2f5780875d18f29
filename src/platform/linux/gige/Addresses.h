// SPDX-License-Identifier: Apache-2.0
// Gives cameras addresses, plans which, and finds out who has one. Any thread, several at a time; each has sockets of
// its own, which it alone reads. No lock but the parts'.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_ADDRESSES_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_ADDRESSES_H

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "platform/linux/gige/Discovery.h"
#include "platform/linux/gige/DriverParts.h"

namespace Nimbrel2::Platform::GigE {

class Addresses {
public:
    Addresses(DriverParts& parts, Discovery& discovery) : m_parts(parts), m_discovery(discovery) {}

    // As Diagnostics.h states them for ForceGigEAddress, PlanGigEAddresses, ApplyGigEAddresses, FindGigEAddressHolder.
    std::uint32_t Force(const GigEAddress& address, ForceIpResult* result);
    std::uint32_t Plan(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans);
    std::uint32_t Apply(std::vector<AddressPlan>* plans);
    std::uint32_t FindHolder(std::uint32_t ip, AddressHolder* holder);

private:
    /// One camera that is to have an address.
    struct Job {
        GigEAddress address;
        std::vector<int> interfaces;  ///< to send on
        std::uint32_t status = HAL_NO_ACKNOWLEDGE;
        std::uint16_t id = 0;
        int heardOn = 0;  ///< the interface on which it has acknowledged; 0 when it has not
    };
    struct Line {
        UsedInterface interface;
        std::shared_ptr<UdpSocket> socket;
    };

    std::vector<int> FindInterfacesOf(std::uint64_t mac) const;
    /// @param error  Receives the errno of the last one that was refused, ENETUNREACH when there was none to open.
    std::vector<Line> Open(const std::set<int>& interfaces, int* error);
    void ForceAll(std::vector<Job>& jobs);
    /// @param openError  What becomes of a job whose interfaces all have no line.
    void Send(std::vector<Job>& jobs, const std::vector<Line>& lines, int openError) const;
    void Receive(std::vector<Job>& jobs, const Line& line) const;
    void FollowMoved(const std::vector<Job>& jobs, TimePoint since);
    ForceIpResult Verify(const Job& job, TimePoint since);

    AddressPlan PlanFor(const CameraDiagnosis& camera) const;
    std::set<std::uint32_t> FindTaken(const GigEDiscovery& discovery, int interface);
    void Choose(std::vector<AddressPlan*> plans, std::set<std::uint32_t> taken);
    std::uint32_t AskWhoHas(int interface, const std::vector<std::uint32_t>& ips,
                            std::map<std::uint32_t, std::uint64_t>* neighbours);
    bool AskOnTheWire(const std::vector<UsedInterface>& interfaces, std::uint32_t ip, AddressHolder* holder);

    DriverParts& m_parts;
    Discovery& m_discovery;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
