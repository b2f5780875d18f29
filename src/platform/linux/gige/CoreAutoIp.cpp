// SPDX-License-Identifier: Apache-2.0
// Chooses addresses for cameras that are on a wrong subnet and gives them to them. Any thread; m_mutex is let go while
// the network is waited for.
#include <algorithm>

#include "platform/base/CameraAddress.h"
#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

// Per camera and round of asking. On a crowded wire more rounds follow, each asking for more.
constexpr std::size_t kCandidates = 4;
// In one round, unless there are more cameras. The kernel remembers 1024 neighbours at most, and those after go
// unasked.
constexpr std::size_t kMostAsked = 256;
constexpr int kMaxRounds = 32;

}  // namespace

std::uint32_t GigECore::ApplyAddresses(std::vector<AddressPlan>* wanted) {
    std::vector<AddressPlan>& plans = *wanted;
    std::vector<ForceJob> jobs;
    std::vector<AddressPlan*> planOfJob;
    {
        std::lock_guard lock(m_mutex);
        for (AddressPlan& plan : plans) {
            const auto interface = m_interfaces.find(plan.interface);
            if (plan.status != HAL_OK || plan.newIp == 0) continue;
            if (interface == m_interfaces.end() || !interface->second.IsUsed()) {
                plan.status = HAL_UNREACHABLE;
                continue;
            }
            ForceJob job;
            job.mac = MacOf(plan.record);
            job.ip = plan.newIp;
            job.mask = plan.newMask;
            job.ports.push_back(interface->second.port);
            jobs.push_back(std::move(job));
            planOfJob.push_back(&plan);
        }
    }
    if (!jobs.empty()) ForceAll(jobs);
    for (std::size_t i = 0; i < jobs.size(); ++i) planOfJob[i]->status = jobs[i].status;
    for (const AddressPlan& plan : plans) {
        if (plan.status != HAL_OK) return plan.status;
    }
    return HAL_OK;
}

std::uint32_t GigECore::FindAddressHolder(std::uint32_t ip, AddressHolder* holder) {
    std::vector<NetworkInterface> asked;
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return HAL_CLOSED;
        if (!HasUsedInterface()) return RefusalStatus();
        for (const auto& [index, interface] : m_interfaces) {
            for (const InterfaceAddress& address : interface.info.addresses) {
                if (address.address != ip) continue;
                *holder = {AddressHolder::Kind::ThisComputer, 0, index, interface.info.name};
                return HAL_OK;
            }
            if (interface.IsUsed() && interface.info.FindSubnet(ip) != nullptr) asked.push_back(interface.info);
        }
        for (const auto& [key, camera] : m_table.GetCameras()) {
            if (camera.listed == nullptr || camera.listed->ip != ip) continue;
            const auto& info = m_interfaces.at(camera.listed->interface).info;
            *holder = {AddressHolder::Kind::Camera, key.mac, info.index, info.name};
            return HAL_OK;
        }
    }
    if (asked.empty()) holder->kind = AddressHolder::Kind::Unknown;
    for (const NetworkInterface& interface : asked) {
        std::map<std::uint32_t, std::uint64_t> neighbours;
        const std::uint32_t status = AskWhoHas(interface.index, {ip}, &neighbours);
        if (status != HAL_OK) return status;
        const auto found = neighbours.find(ip);
        if (found == neighbours.end()) continue;
        *holder = {AddressHolder::Kind::Host, found->second, interface.index, interface.name};
        return HAL_OK;
    }
    return HAL_OK;
}

std::uint32_t GigECore::PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) {
    plans->clear();
    Collected heard;
    const std::uint32_t status = DiscoverAll(&heard);
    if (status != HAL_OK) return status;
    *plans = PlansFor(heard, serialNumber);
    if (serialNumber && plans->empty()) return HAL_GONE;

    std::map<int, std::vector<AddressPlan*>> byInterface;
    for (AddressPlan& plan : *plans) {
        if (!plan.alreadyRight && plan.status == HAL_OK) byInterface[plan.interface].push_back(&plan);
    }
    std::set<std::uint32_t> given;  // two interfaces may be in one subnet
    for (auto& [interface, wrong] : byInterface) {
        std::set<std::uint32_t> taken = FindTakenAddresses(heard, interface);
        taken.insert(given.begin(), given.end());
        ChooseAddresses(wrong, std::move(taken));
        for (const AddressPlan& plan : *plans) given.insert(plan.newIp);
    }
    return HAL_OK;
}

// One plan a camera, in the order of their MACs. A camera that one interface can reach is right, whatever others hear.
std::vector<AddressPlan> GigECore::PlansFor(const Collected& heard, std::optional<std::uint32_t> serialNumber) const {
    std::vector<AddressPlan> plans;
    std::lock_guard lock(m_mutex);
    for (const auto& [where, camera] : heard) {
        if (serialNumber && SerialNumberOf(camera.record) != *serialNumber) continue;
        const auto interface = m_interfaces.find(camera.interface);
        if (interface == m_interfaces.end()) continue;
        AddressPlan plan;
        plan.record = camera.record;
        plan.interface = camera.interface;
        plan.interfaceName = interface->second.info.name;
        const NetworkInterface& info = interface->second.info;
        plan.usability = UsabilityOfAddress(info, camera.record, camera.reachable);
        plan.alreadyRight = plan.usability == GigEUsability::Usable;
        const InterfaceAddress* subnet = camera.reachable ? info.FindSubnet(camera.record.ipAddress) : nullptr;
        if (subnet == nullptr && !info.addresses.empty()) subnet = &HomeSubnet(info);
        if (subnet != nullptr) plan.interfaceAddress = *subnet;
        if (!plan.alreadyRight && info.addresses.empty()) plan.status = HAL_UNREACHABLE;
        if (!plan.alreadyRight && where.first.mac == 0) plan.status = HAL_NOT_SUPPORTED;  // FORCEIP goes by the MAC
        const bool again = !plans.empty() && KeyOf(plans.back().record) == where.first;
        if (!again) {
            plans.push_back(plan);
        } else if (!plans.back().alreadyRight && (plan.alreadyRight || plans.back().status != HAL_OK)) {
            plans.back() = plan;
        }
    }
    return plans;
}

std::set<std::uint32_t> GigECore::FindTakenAddresses(const Collected& heard, int interface) {
    std::set<std::uint32_t> taken;
    for (const auto& entry : heard) taken.insert({entry.second.record.ipAddress, entry.second.record.defaultGateway});
    m_routes.ReadGateways(interface, &taken);
    std::lock_guard lock(m_mutex);
    for (const auto& [key, camera] : m_table.GetCameras()) {
        for (const auto& sighting : camera.sightings) taken.insert(sighting->ip);
    }
    for (const auto& entry : m_interfaces) {
        for (const InterfaceAddress& address : entry.second.info.addresses) taken.insert(address.address);
    }
    return taken;
}

void GigECore::ChooseAddresses(std::vector<AddressPlan*>& plans, std::set<std::uint32_t> taken) {
    const int interface = plans.front()->interface;
    InterfaceAddress subnet;
    {
        std::lock_guard lock(m_mutex);
        const auto found = m_interfaces.find(interface);
        if (found == m_interfaces.end() || found->second.info.addresses.empty()) {
            for (AddressPlan* plan : plans) plan->status = HAL_UNREACHABLE;
            return;
        }
        subnet = HomeSubnet(found->second.info);
    }
    for (int round = 0; round < kMaxRounds && !plans.empty(); ++round) {
        std::map<AddressPlan*, std::vector<std::uint32_t>> candidates;
        std::vector<std::uint32_t> all;
        std::set<std::uint32_t> spokenFor = taken;
        const std::size_t most = std::max<std::size_t>(1, kMostAsked / plans.size());
        const std::size_t each = std::min(most, kCandidates << std::min(round, 6));
        for (AddressPlan* plan : plans) {
            candidates[plan] = FindFreeAddresses(subnet, spokenFor, MacOf(plan->record), each);
            spokenFor.insert(candidates[plan].begin(), candidates[plan].end());
            all.insert(all.end(), candidates[plan].begin(), candidates[plan].end());
        }
        std::map<std::uint32_t, std::uint64_t> neighbours;
        const std::uint32_t status = AskWhoHas(interface, all, &neighbours);
        for (AddressPlan* plan : plans) {
            plan->status = status;
            if (status != HAL_OK) continue;
            for (const std::uint32_t ip : candidates[plan]) {
                const auto neighbour = neighbours.find(ip);
                taken.insert(ip);
                // The camera may have had the address before: then the neighbour is the camera itself.
                if (neighbour != neighbours.end() && neighbour->second != MacOf(plan->record)) continue;
                plan->newIp = ip;
                plan->newMask = subnet.GetMask();
                break;
            }
            // Without a candidate it has lost them to the others of this round, or the subnet is full.
            if (plan->newIp == 0 && FindFreeAddresses(subnet, taken, 0, 1).empty()) plan->status = HAL_FAILED;
        }
        std::erase_if(plans, [](const AddressPlan* plan) { return plan->newIp != 0 || plan->status != HAL_OK; });
    }
    for (AddressPlan* plan : plans) plan->status = HAL_FAILED;
}

// Sends a datagram to each address, which makes the kernel ask who has it, and looks at who has answered. Needs no
// privileges, other than an ARP probe. An address that could not be asked for counts as somebody's, who has no MAC.
std::uint32_t GigECore::AskWhoHas(int interface, const std::vector<std::uint32_t>& ips,
                                  std::map<std::uint32_t, std::uint64_t>* neighbours) {
    std::unique_lock lock(m_mutex);
    const auto found = m_interfaces.find(interface);
    if (found == m_interfaces.end() || !found->second.IsUsed()) return HAL_UNREACHABLE;
    if (found->second.info.loopback || ips.empty()) return HAL_OK;
    const std::shared_ptr<UdpPort> port = found->second.port;
    const NetworkInterface info = found->second.info;
    lock.unlock();
    std::vector<std::uint32_t> unasked;
    int refusal = 0;
    for (const std::uint32_t ip : ips) {
        if (const int error = port->Knock(ip, LocalAddressFor(info, ip)); error != 0) {
            unasked.push_back(ip);
            refusal = error;
        }
    }
    if (unasked.size() == ips.size()) return StatusOfErrno(refusal);
    lock.lock();
    m_changed.wait_until(lock, Clock::now() + m_timings.neighbourWait, [&] { return !m_running; });
    if (!m_running) return HAL_CLOSED;
    lock.unlock();
    const int error = m_routes.ReadNeighbours(interface, neighbours);
    for (const std::uint32_t ip : unasked) neighbours->insert({ip, 0});
    return StatusOfErrno(error);
}

}  // namespace Nimbrel2::Platform::GigE
