// SPDX-License-Identifier: Apache-2.0
// Addresses of cameras. Any thread; no lock of its own.
#include "platform/linux/gige/Addresses.h"

#include <algorithm>
#include <cerrno>
#include <variant>

#include "platform/base/CameraAddress.h"
#include "platform/base/Errno.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/ArpProbe.h"
#include "platform/linux/gige/Reply.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::uint8_t ForceIpFlags = Gvcp::Flag::AcknowledgeRequired | Gvcp::Flag::AllowBroadcastAcknowledge;
constexpr std::size_t PacketBudget = 256;
// Per camera and round of asking. On a crowded wire more rounds follow, each asking for more.
constexpr std::size_t Candidates = 4;
// In one round, unless there are more cameras. The kernel remembers 1024 neighbours at most, and those after go
// unasked.
constexpr std::size_t MostAsked = 256;
constexpr int MaxRounds = 32;
constexpr int ArpTries = 3;

/// The ids of some requests, given back when they have ended.
class Ids {
public:
    explicit Ids(RequestIds& ids) : m_ids(ids) {}
    ~Ids() {
        for (const std::uint16_t id : m_taken) {
            m_ids.Release(id);
        }
    }
    Ids(const Ids&) = delete;
    Ids& operator=(const Ids&) = delete;

    std::uint16_t Take() {
        m_taken.push_back(0);
        return m_taken.back() = m_ids.Take();
    }

private:
    RequestIds& m_ids;
    std::vector<std::uint16_t> m_taken;
};

}  // namespace

// ---- FORCEIP -------------------------------------------------------------------------------------------------------

std::uint32_t Addresses::Force(const GigEAddress& address, ForceIpResult* result) {
    const std::uint32_t status = m_parts.GetStatus();
    if (status != HAL_OK) {
        return status;
    }
    std::vector<Job> jobs(1);
    jobs[0].address = address;
    jobs[0].interfaces = FindInterfacesOf(address.mac);
    const TimePoint start = Clock::now();
    ForceAll(jobs);
    *result = Verify(jobs[0], start);
    return jobs[0].status;
}

std::uint32_t Addresses::Apply(std::vector<AddressPlan>* plans) {
    const std::uint32_t status = m_parts.GetStatus();
    if (status != HAL_OK) {
        return status;
    }
    std::vector<Job> jobs;
    std::vector<AddressPlan*> planOfJob;
    for (AddressPlan& plan : *plans) {
        if (plan.status != HAL_OK || plan.newIp == 0) {
            continue;
        }
        Job job;
        job.address = {MacOf(plan.record), plan.newIp, plan.newMask, 0};
        job.interfaces = {plan.interface};
        jobs.push_back(std::move(job));
        planOfJob.push_back(&plan);
    }
    if (!jobs.empty()) {
        ForceAll(jobs);
    }
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        planOfJob[i]->status = jobs[i].status;
    }
    for (const AddressPlan& plan : *plans) {
        if (plan.status != HAL_OK) {
            return plan.status;
        }
    }
    return HAL_OK;
}

// The interfaces on whose wire the camera has been heard, all of them when it has not been heard at all.
std::vector<int> Addresses::FindInterfacesOf(std::uint64_t mac) const {
    std::vector<int> heard;
    std::vector<int> all;
    const std::vector<SightingView> sightings = m_parts.presence.GetSightings(CameraKey{mac, 0, {}});
    for (const UsedInterface& interface : m_parts.interfaces.GetUsed()) {
        all.push_back(interface.info.index);
        const bool here = std::any_of(sightings.begin(), sightings.end(),
                                      [&](const SightingView& view) { return view.interface == interface.info.index; });
        if (here) {
            heard.push_back(interface.info.index);
        }
    }
    return heard.empty() ? all : heard;
}

std::vector<Addresses::Line> Addresses::Open(const std::set<int>& interfaces, int* error) {
    std::vector<Line> lines;
    for (const int interface : interfaces) {
        if (const auto used = m_parts.interfaces.FindUsed(interface)) {
            lines.push_back({*used, {}});
        }
    }
    *error = ENETUNREACH;
    m_parts.monitor.Run([&] {
        std::string where;
        for (Line& line : lines) {
            const int refusal = m_parts.OpenSocket(line.interface.info, {}, &line.socket, &where);
            *error = refusal != 0 ? refusal : *error;
        }
    });
    std::erase_if(lines, [](const Line& line) { return line.socket == nullptr; });
    return lines;
}

// All cameras at once, so that many that do not answer cost no more time than one.
void Addresses::ForceAll(std::vector<Job>& jobs) {
    const Timings& timings = m_parts.options.timings;
    Ids ids(m_parts.ids);
    std::set<int> interfaces;
    for (Job& job : jobs) {
        job.id = ids.Take();
        interfaces.insert(job.interfaces.begin(), job.interfaces.end());
    }
    int openError = 0;
    const std::vector<Line> lines = Open(interfaces, &openError);
    std::vector<int> fds;
    for (const Line& line : lines) {
        fds.push_back(line.socket->GetFd());
    }
    const TimePoint start = Clock::now();
    // Nobody acknowledges the address 0, so that nothing is waited for.
    const auto isWaitedFor = [](const Job& job) { return job.heardOn == 0 && job.address.ip != 0 && job.id != 0; };
    for (int i = 0; i < timings.forceIpTries; ++i) {
        Send(jobs, lines, openError);
        const TimePoint deadline = Clock::now() + timings.forceIpTry;
        std::vector<bool> readable;
        while (std::any_of(jobs.begin(), jobs.end(), isWaitedFor) &&
               WaitForAny(fds, m_parts.monitor.GetStopFd(), deadline, &readable)) {
            for (const Line& line : lines) {
                Receive(jobs, line);
            }
        }
        if (!m_parts.presence.IsRunning()) {
            break;
        }
    }
    if (!m_parts.presence.IsRunning()) {
        for (Job& job : jobs) {
            if (job.heardOn == 0) {
                job.status = HAL_CLOSED;
            }
        }
        return;
    }
    FollowMoved(jobs, start);
}

void Addresses::Send(std::vector<Job>& jobs, const std::vector<Line>& lines, int openError) const {
    for (Job& job : jobs) {
        if (job.heardOn != 0) {
            continue;
        }
        if (job.id == 0) {
            job.status = HAL_BUSY;
            continue;
        }
        const GigEAddress& address = job.address;
        const Gvcp::ForceIpCommand command{static_cast<std::uint16_t>(address.mac >> 32),
                                           static_cast<std::uint32_t>(address.mac), address.ip, address.mask,
                                           address.gateway};
        const Gvcp::Packet packet = Gvcp::EncodeForceIpCommand(job.id, ForceIpFlags, command);
        int error = openError;
        for (const Line& line : lines) {
            if (std::count(job.interfaces.begin(), job.interfaces.end(), line.interface.info.index) == 0) {
                continue;
            }
            const int lineError = line.socket->Broadcast(packet.GetBytes());
            if (error != 0) {
                error = lineError;
            }
        }
        const bool sent = error == 0 || error == EAGAIN || error == ENOBUFS;
        job.status = sent ? HAL_NO_ACKNOWLEDGE : StatusOfErrno(error);
        if (sent && address.ip == 0) {
            job.status = HAL_OK;
        }
    }
}

// An acknowledge comes from the address that the camera has by then.
void Addresses::Receive(std::vector<Job>& jobs, const Line& line) const {
    Listener listener([&](std::uint32_t from, std::span<const std::uint8_t> bytes) {
        for (Job& job : jobs) {
            if (job.heardOn != 0 || job.id == 0 || job.address.ip != from) {
                continue;
            }
            Reply reply(job.id, Gvcp::MessageId::ForceIpAck, TimePoint());
            reply.Take(bytes, Clock::now());
            if (!reply.IsAnswered()) {
                continue;
            }
            job.status = reply.GetStatus();
            job.heardOn = line.interface.info.index;
        }
    });
    line.socket->Drain(PacketBudget, listener);
}

// What was known of their old addresses no longer holds. They are asked at the new ones at once, and given a moment to
// answer there, so that the next listing shows them. Where nothing was acknowledged it is still time to look: the
// acknowledge may be what got lost.
void Addresses::FollowMoved(const std::vector<Job>& jobs, TimePoint since) {
    std::vector<Probe> probes;
    std::vector<GigECameraName> moved;
    const TimePoint now = Clock::now();
    for (const Job& job : jobs) {
        if (job.status != HAL_OK || job.heardOn == 0) {
            continue;
        }
        Answer answer;
        const std::vector<SightingView> known = m_parts.presence.GetSightings(CameraKey{job.address.mac, 0, {}});
        if (!known.empty()) {
            answer.record = known.front().record;
        }
        answer.interface = job.heardOn;
        answer.from = job.address.ip;
        answer.record.macHigh = static_cast<std::uint16_t>(job.address.mac >> 32);
        answer.record.macLow = static_cast<std::uint32_t>(job.address.mac);
        answer.record.ipAddress = job.address.ip;
        answer.record.subnetMask = job.address.mask;
        answer.record.defaultGateway = job.address.gateway;
        answer.usability = m_parts.interfaces.Judge(job.heardOn, answer.record);
        m_parts.presence.HasMoved(answer, now, &probes);
        if (answer.usability == GigEUsability::Usable) {
            moved.push_back({job.address.ip, job.address.mac});
        }
    }
    m_parts.monitor.SendProbes(probes);
    m_parts.monitor.StartBursts();
    m_parts.presence.WaitUntilAnswered(moved, since, now + m_parts.options.timings.forceIpVerify);
}

ForceIpResult Addresses::Verify(const Job& job, TimePoint since) {
    ForceIpResult result;
    result.acknowledged = job.heardOn != 0 && job.status == HAL_OK;
    if (job.address.ip == 0) {
        return result;
    }
    const CameraKey key{job.address.mac, 0, {}};
    const auto listed = m_parts.presence.FindListed(key);
    if (listed && listed->record.ipAddress == job.address.ip && m_parts.presence.HasAnswered(key, since)) {
        result.verified = true;
        result.record = listed->record;
        return result;
    }
    GvcpDiscoveryRecord record{};
    record.ipAddress = job.address.ip;
    record.subnetMask = job.address.mask;
    record.defaultGateway = job.address.gateway;
    result.outOfReach = std::none_of(job.interfaces.begin(), job.interfaces.end(), [&](int interface) {
        return m_parts.interfaces.Judge(interface, record) == GigEUsability::Usable;
    });
    return result;
}

// ---- Plans ---------------------------------------------------------------------------------------------------------

std::uint32_t Addresses::Plan(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) {
    GigEDiscovery discovery;
    const std::uint32_t status = m_discovery.Run(std::nullopt, &discovery);
    if (status != HAL_OK) {
        return status;
    }
    for (const CameraDiagnosis& camera : discovery.cameras) {
        if (!serialNumber || SerialNumberOf(camera.record) == *serialNumber) {
            plans->push_back(PlanFor(camera));
        }
    }
    if (serialNumber && plans->empty()) {
        return HAL_GONE;
    }

    std::map<int, std::vector<AddressPlan*>> byInterface;
    for (AddressPlan& plan : *plans) {
        if (!plan.alreadyRight && plan.status == HAL_OK) {
            byInterface[plan.interface].push_back(&plan);
        }
    }
    std::set<std::uint32_t> given;  // two interfaces may be in one subnet
    for (const auto& [interface, wrong] : byInterface) {
        std::set<std::uint32_t> taken = FindTaken(discovery, interface);
        taken.insert(given.begin(), given.end());
        Choose(wrong, std::move(taken));
        if (!m_parts.presence.IsRunning()) {
            return HAL_CLOSED;
        }
        for (const AddressPlan& plan : *plans) {
            given.insert(plan.newIp);
        }
    }
    return HAL_OK;
}

AddressPlan Addresses::PlanFor(const CameraDiagnosis& camera) const {
    AddressPlan plan;
    plan.record = camera.record;
    plan.interface = camera.interface;
    plan.interfaceName = m_parts.interfaces.GetName(camera.interface);
    plan.usability = camera.usability;
    plan.alreadyRight = !NeedsAddress(camera.usability);
    const auto interface = m_parts.interfaces.FindUsed(camera.interface);
    const bool hasAddress = interface && !interface->info.addresses.empty();
    if (hasAddress) {
        const InterfaceAddress* subnet =
            plan.alreadyRight ? interface->info.FindSubnet(camera.record.ipAddress) : nullptr;
        plan.interfaceAddress = subnet != nullptr ? *subnet : HomeSubnet(interface->info);
    }
    if (plan.alreadyRight) {
        return plan;
    }
    if (!hasAddress) {
        plan.status = HAL_UNREACHABLE;
    }
    if (MacOf(camera.record) == 0) {
        plan.status = HAL_NOT_SUPPORTED;  // FORCEIP goes by the MAC
    }
    return plan;
}

std::set<std::uint32_t> Addresses::FindTaken(const GigEDiscovery& discovery, int interface) {
    std::set<std::uint32_t> taken;
    for (const CameraDiagnosis& camera : discovery.cameras) {
        taken.insert({camera.record.ipAddress, camera.record.defaultGateway});
    }
    m_parts.routes.ReadGateways(interface, &taken);
    for (const SightingView& view : m_parts.presence.GetSightings()) {
        taken.insert(view.record.ipAddress);
    }
    for (const auto& own : m_parts.interfaces.GetAddresses()) {
        taken.insert(own.first.address);
    }
    return taken;
}

void Addresses::Choose(std::vector<AddressPlan*> plans, std::set<std::uint32_t> taken) {
    const int interface = plans.front()->interface;
    const InterfaceAddress subnet = plans.front()->interfaceAddress;
    for (int round = 0; round < MaxRounds && !plans.empty(); ++round) {
        std::map<AddressPlan*, std::vector<std::uint32_t>> candidates;
        std::vector<std::uint32_t> all;
        std::set<std::uint32_t> spokenFor = taken;
        const std::size_t most = std::max<std::size_t>(1, MostAsked / plans.size());
        const std::size_t each = std::min(most, Candidates << std::min(round, 6));
        for (AddressPlan* plan : plans) {
            candidates[plan] = FindFreeAddresses(subnet, spokenFor, MacOf(plan->record), each);
            spokenFor.insert(candidates[plan].begin(), candidates[plan].end());
            all.insert(all.end(), candidates[plan].begin(), candidates[plan].end());
        }
        std::map<std::uint32_t, std::uint64_t> neighbours;
        const std::uint32_t status = AskWhoHas(interface, all, &neighbours);
        for (AddressPlan* plan : plans) {
            plan->status = status;
            if (status != HAL_OK) {
                continue;
            }
            for (const std::uint32_t ip : candidates[plan]) {
                const auto neighbour = neighbours.find(ip);
                taken.insert(ip);
                // The camera may have had the address before: then the neighbour is the camera itself.
                if (neighbour != neighbours.end() && neighbour->second != MacOf(plan->record)) {
                    continue;
                }
                plan->newIp = ip;
                plan->newMask = subnet.GetMask();
                break;
            }
            // Without a candidate it has lost them to the others of this round, or the subnet is full.
            if (plan->newIp == 0 && FindFreeAddresses(subnet, taken, 0, 1).empty()) {
                plan->status = HAL_FAILED;
            }
        }
        std::erase_if(plans, [](const AddressPlan* plan) { return plan->newIp != 0 || plan->status != HAL_OK; });
    }
    for (AddressPlan* plan : plans) {
        plan->status = HAL_FAILED;
    }
}

// Sends a datagram to each address, which makes the kernel ask who has it, and looks at who has answered. Needs no
// privileges, other than an ARP probe. An address that could not be asked for counts as somebody's, who has no MAC.
std::uint32_t Addresses::AskWhoHas(int interface, const std::vector<std::uint32_t>& ips,
                                   std::map<std::uint32_t, std::uint64_t>* neighbours) {
    if (ips.empty()) {
        return HAL_OK;
    }
    int openError = 0;
    const std::vector<Line> lines = Open({interface}, &openError);
    if (lines.empty()) {
        return m_parts.presence.IsRunning() ? StatusOfErrno(openError) : std::uint32_t{HAL_CLOSED};
    }
    const NetworkInterface& info = lines[0].interface.info;
    if (info.loopback) {
        return HAL_OK;
    }
    std::vector<std::uint32_t> unasked;
    int refusal = 0;
    for (const std::uint32_t ip : ips) {
        if (const int error = lines[0].socket->TriggerArp(ip, LocalAddressFor(info, ip)); error != 0) {
            unasked.push_back(ip);
            refusal = error;
        }
    }
    if (unasked.size() == ips.size()) {
        return StatusOfErrno(refusal);
    }
    std::vector<bool> none;
    WaitForAny({}, m_parts.monitor.GetStopFd(), Clock::now() + m_parts.options.timings.neighbourWait, &none);
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }
    const int error = m_parts.routes.ReadNeighbours(interface, neighbours);
    for (const std::uint32_t ip : unasked) {
        neighbours->insert({ip, 0});
    }
    return StatusOfErrno(error);
}

// ---- Who has it ----------------------------------------------------------------------------------------------------

std::uint32_t Addresses::FindHolder(std::uint32_t ip, AddressHolder* holder) {
    const std::uint32_t status = m_parts.GetStatus();
    if (status != HAL_OK) {
        return status;
    }
    for (const auto& [own, interface] : m_parts.interfaces.GetAddresses()) {
        if (own.address != ip) {
            continue;
        }
        *holder = {AddressHolder::Kind::ThisComputer, 0, interface.index, interface.name};
        return HAL_OK;
    }
    for (const SightingView& view : m_parts.presence.GetSightings()) {
        // What only says that it has the address is not believed while another one answers there.
        const bool believed = view.state == CameraTable::State::Present ||
                              (view.state == CameraTable::State::OutOfReach && !view.addressTaken);
        if (view.record.ipAddress != ip || !believed) {
            continue;
        }
        *holder = {AddressHolder::Kind::Camera, view.key.mac, view.interface,
                   m_parts.interfaces.GetName(view.interface)};
        return HAL_OK;
    }
    const std::vector<UsedInterface> used = m_parts.interfaces.GetUsed();
    if (AskOnTheWire(used, ip, holder)) {
        return m_parts.GetStatus();
    }
    // The kernel asks for addresses of its own subnets only.
    holder->kind = AddressHolder::Kind::Unknown;
    for (const UsedInterface& interface : used) {
        if (interface.info.FindSubnet(ip) == nullptr) {
            continue;
        }
        std::map<std::uint32_t, std::uint64_t> neighbours;
        const std::uint32_t asked = AskWhoHas(interface.info.index, {ip}, &neighbours);
        if (asked != HAL_OK) {
            return asked;
        }
        holder->kind = AddressHolder::Kind::Nobody;
        const auto found = neighbours.find(ip);
        if (found == neighbours.end()) {
            continue;
        }
        *holder = {AddressHolder::Kind::Host, found->second, interface.info.index, interface.info.name};
        return HAL_OK;
    }
    return HAL_OK;
}

// False where this user may see no packets.
bool Addresses::AskOnTheWire(const std::vector<UsedInterface>& interfaces, std::uint32_t ip, AddressHolder* holder) {
    std::vector<std::unique_ptr<ArpProbe>> probes(interfaces.size());
    m_parts.monitor.Run([&] {
        for (std::size_t i = 0; i < interfaces.size(); ++i) {
            probes[i] = std::make_unique<ArpProbe>(interfaces[i].info.index);
        }
    });
    std::vector<int> fds;
    for (const auto& probe : probes) {
        if (probe && probe->IsOpen()) {
            fds.push_back(probe->GetFd());
        }
    }
    if (fds.empty()) {
        return false;
    }
    for (int i = 0; i < ArpTries; ++i) {
        for (const auto& probe : probes) {
            if (probe && probe->IsOpen()) {
                probe->Ask(ip);
            }
        }
        const TimePoint deadline = Clock::now() + m_parts.options.timings.neighbourWait / ArpTries;
        std::vector<bool> readable;
        while (WaitForAny(fds, m_parts.monitor.GetStopFd(), deadline, &readable)) {
            for (std::size_t k = 0; k < probes.size(); ++k) {
                if (!probes[k] || !probes[k]->IsOpen()) {
                    continue;
                }
                const auto owner = probes[k]->Receive(ip);
                if (!owner) {
                    continue;
                }
                *holder = {AddressHolder::Kind::Host, *owner, interfaces[k].info.index, interfaces[k].info.name};
                return true;
            }
        }
    }
    return true;
}

}  // namespace Nimbrel2::Platform::GigE
