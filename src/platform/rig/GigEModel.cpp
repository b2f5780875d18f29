// SPDX-License-Identifier: Apache-2.0
// Network interfaces and GigE cameras in memory. No thread, no lock: the rig that owns it guards it.
#include "platform/rig/GigEModel.h"

#include <algorithm>
#include <bit>
#include <set>
#include <utility>

#include "platform/base/CameraAddress.h"
#include "platform/base/Texts.h"

namespace Nimbrel2::Platform {

namespace {

using Milliseconds = std::chrono::milliseconds;

// What the driver of a real network does for an answer. Each try has the same request id, so an answer to an earlier
// one counts.
constexpr Milliseconds TryTime{200};
constexpr int Tries = 3;

constexpr std::uint32_t Mtu = 1500;
constexpr std::uint32_t LinkSpeed = 1000;  // Mbit/s

// Interfaces are numbered from 1, as the kernel does.
int NumberOf(std::size_t interface) { return static_cast<int>(interface) + 1; }

}  // namespace

std::vector<RigProblem> GigEModel::Validate(const std::vector<NetworkInterfaceDescription>& interfaces,
                                            const std::string& pointer) {
    std::vector<RigProblem> problems;
    std::set<std::string> names;
    std::set<std::uint64_t> macs;
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        const NetworkInterfaceDescription& network = interfaces[i];
        const std::string where = pointer + "/" + std::to_string(i);
        if (network.name.empty() || !names.insert(network.name).second) {
            problems.push_back({where + "/name", "\"" + network.name + "\" is empty or taken"});
        }
        if (!IsSubnetMask(network.subnetMask)) {
            problems.push_back({where + "/subnetMask", "a subnet mask is ones followed by zeros"});
        }
        for (std::size_t k = 0; k < network.cameras.size(); ++k) {
            const GigECameraDescription& camera = network.cameras[k];
            const std::string cameraWhere = where + "/cameras/" + std::to_string(k);
            if (camera.name.empty() || !names.insert(camera.name).second) {
                problems.push_back({cameraWhere + "/name", "\"" + camera.name + "\" is empty or taken"});
            }
            if (camera.options.mac == 0 || !macs.insert(camera.options.mac).second) {
                problems.push_back({cameraWhere + "/mac", "\"" + camera.name +
                                                              "\" needs a MAC that no other camera has, not " +
                                                              FormatMac(camera.options.mac)});
            }
            if (!IsSubnetMask(camera.options.subnetMask)) {
                problems.push_back({cameraWhere + "/subnetMask", "a subnet mask is ones followed by zeros"});
            }
        }
    }
    return problems;
}

GigEModel::GigEModel(std::vector<NetworkInterfaceDescription> interfaces) : m_interfaces(std::move(interfaces)) {
    for (std::size_t i = 0; i < m_interfaces.size(); ++i) {
        for (const GigECameraDescription& description : m_interfaces[i].cameras) {
            Camera camera;
            camera.name = description.name;
            camera.interface = i;
            camera.plugged = description.plugged;
            camera.faults = description.options.faults;
            camera.registers = std::make_unique<Simulated::BootstrapRegisters>(description.options);
            if (description.options.owner.has_value()) {
                camera.registers->HoldControl(*description.options.owner);
            }
            m_cameras.push_back(std::move(camera));
        }
    }
}

GigEModel::Camera* GigEModel::Find(const std::string& name) {
    const auto found =
        std::find_if(m_cameras.begin(), m_cameras.end(), [&name](const Camera& camera) { return camera.name == name; });
    return found == m_cameras.end() ? nullptr : &*found;
}

bool GigEModel::Has(const std::string& name) const {
    return std::any_of(m_cameras.begin(), m_cameras.end(),
                       [&name](const Camera& camera) { return camera.name == name; });
}

bool GigEModel::HasInterface(const std::string& name) const {
    return std::any_of(m_interfaces.begin(), m_interfaces.end(),
                       [&name](const NetworkInterfaceDescription& network) { return network.name == name; });
}

bool GigEModel::Plug(const std::string& name) {
    Camera* camera = Find(name);
    return camera != nullptr && !std::exchange(camera->plugged, true);
}

bool GigEModel::Unplug(const std::string& name) {
    Camera* camera = Find(name);
    if (camera == nullptr || !camera->plugged) {
        return false;
    }
    camera->plugged = false;
    camera->registers->PowerCycle();  // most are powered over their cable
    return true;
}

std::optional<std::string> GigEModel::Move(const std::string& name, const std::string& interfaceName) {
    for (std::size_t i = 0; i < m_interfaces.size(); ++i) {
        if (m_interfaces[i].name == interfaceName) {
            Camera* camera = Find(name);
            camera->interface = i;
            camera->plugged = true;
            return std::nullopt;
        }
    }
    return "the rig has no network interface named \"" + interfaceName + "\"";
}

bool GigEModel::SetLink(const std::string& interfaceName, bool up) {
    for (NetworkInterfaceDescription& network : m_interfaces) {
        if (network.name == interfaceName) {
            return std::exchange(network.up, up) != up;
        }
    }
    return false;
}

void GigEModel::SetAddress(const std::string& name, std::uint32_t address, std::uint32_t mask, std::uint32_t gateway) {
    Find(name)->registers->SetIpConfiguration(address, mask, gateway);
}

void GigEModel::Hold(const std::string& name, const Simulated::ControlOwner& owner) {
    Find(name)->registers->HoldControl(owner);
}

void GigEModel::Release(const std::string& name) { Find(name)->registers->ReleaseControl(); }

void GigEModel::SetFaults(const std::string& name, const Simulated::Faults& faults) { Find(name)->faults = faults; }

bool GigEModel::Answers(const Camera& camera) {
    return !camera.faults.silent && camera.faults.lossPercent < 100 && camera.faults.delayMinimum < Tries * TryTime;
}

GigEModel::Exchange GigEModel::Send(const Camera& camera) {
    const auto isLost = [this, &camera] { return m_random.HappensInPercent(camera.faults.lossPercent); };
    Exchange exchange{Tries * TryTime, false, false};
    for (int i = 0; i < Tries; ++i) {
        const Milliseconds answer = i * TryTime + camera.faults.delayMinimum;
        if (answer >= exchange.time) {
            break;  // an earlier answer is there before, or nobody waits for this one
        }
        if (isLost()) {
            continue;
        }
        exchange.arrived = true;
        if (!isLost()) {
            exchange.answered = true;
            exchange.time = answer;
        }
    }
    return exchange;
}

std::vector<const GigEModel::Camera*> GigEModel::Heard() const {
    std::vector<const Camera*> heard;
    for (const Camera& camera : m_cameras) {
        if (camera.plugged && m_interfaces[camera.interface].up && Answers(camera)) {
            heard.push_back(&camera);
        }
    }
    std::sort(heard.begin(), heard.end(), [](const Camera* a, const Camera* b) {
        return std::make_pair(a->registers->GetMac(), a->registers->GetAddress()) <
               std::make_pair(b->registers->GetMac(), b->registers->GetAddress());
    });
    return heard;
}

GigEUsability GigEModel::UsabilityOf(const Camera& camera) const {
    const GigEUsability usability =
        UsabilityOfAddress(InterfaceAt(camera.interface), camera.registers->GetDiscoveryRecord(), false);
    if (usability != GigEUsability::Usable) {
        return usability;
    }
    for (const Camera* other : Heard()) {
        if (other == &camera) {
            break;
        }
        const bool sameAddress = other->registers->GetAddress() == camera.registers->GetAddress();
        if (other->interface == camera.interface && sameAddress) {
            return GigEUsability::AddressTaken;
        }
    }
    return GigEUsability::Usable;
}

bool GigEModel::CanBeTalkedTo(const Camera& camera) const {
    const GigEUsability usability = UsabilityOf(camera);
    return usability == GigEUsability::Usable || usability == GigEUsability::AddressTaken;
}

std::vector<const GigEModel::Camera*> GigEModel::Reached() const {
    std::vector<const Camera*> reached = Heard();
    std::erase_if(reached, [this](const Camera* camera) { return UsabilityOf(*camera) != GigEUsability::Usable; });
    return reached;
}

GigEModel::Camera* GigEModel::FindHeard(std::uint64_t mac) {
    for (const Camera* camera : Heard()) {
        if (camera->registers->GetMac() == mac) {
            return &m_cameras[static_cast<std::size_t>(camera - m_cameras.data())];
        }
    }
    return nullptr;
}

bool GigEModel::HasInterfaceUp() const {
    return std::any_of(m_interfaces.begin(), m_interfaces.end(),
                       [](const NetworkInterfaceDescription& network) { return network.up; });
}

std::vector<std::string> GigEModel::InterfacesUp() const {
    std::vector<std::string> names;
    for (const NetworkInterfaceDescription& network : m_interfaces) {
        if (network.up) {
            names.push_back(network.name);
        }
    }
    return names;
}

std::uint32_t GigEModel::ForceAddress(const GigEAddress& address, ForceIpResult* result) {
    if (!HasInterfaceUp()) {
        return HAL_NO_BUS;
    }
    // What a camera that begins anew does is not acknowledged, so it was sent and that is all.
    std::uint32_t status = address.ip == 0 ? HAL_OK : HAL_NO_ACKNOWLEDGE;
    Camera* camera = FindHeard(address.mac);
    if (camera == nullptr) {
        return status;
    }
    const Exchange exchange = Send(*camera);
    camera->registers->ExpireControl(std::chrono::steady_clock::now());
    if (!exchange.arrived || camera->registers->IsControlHeld()) {
        return status;  // a camera in use discards the command
    }
    if (address.ip == 0) {
        camera->registers->RestartIpConfiguration();
        return status;
    }
    camera->registers->SetIpConfiguration(address.ip, address.mask, address.gateway);
    result->acknowledged = exchange.answered;
    result->verified = UsabilityOf(*camera) == GigEUsability::Usable;
    result->outOfReach = !CanBeTalkedTo(*camera);
    if (result->verified) {
        result->record = camera->registers->GetDiscoveryRecord();
    }
    return static_cast<std::uint32_t>(exchange.answered ? HAL_OK : HAL_NO_ACKNOWLEDGE);
}

AddressHolder GigEModel::FindAddressHolder(std::uint32_t ip) const {
    AddressHolder holder;
    for (std::size_t i = 0; i < m_interfaces.size(); ++i) {
        if (m_interfaces[i].address == ip) {
            holder.kind = AddressHolder::Kind::ThisComputer;
            holder.interface = NumberOf(i);
            holder.interfaceName = m_interfaces[i].name;
            return holder;
        }
    }
    for (const Camera* camera : Heard()) {
        if (camera->registers->GetAddress() == ip) {
            holder.kind = AddressHolder::Kind::Camera;
            holder.mac = camera->registers->GetMac();
            holder.interface = NumberOf(camera->interface);
            holder.interfaceName = InterfaceOf(*camera).name;
            return holder;
        }
    }
    return holder;
}

// Interfaces are numbered from 1, as the kernel does.
NetworkInterface GigEModel::InterfaceAt(std::size_t interface) const {
    const NetworkInterfaceDescription& description = m_interfaces[interface];
    NetworkInterface described;
    described.index = NumberOf(interface);
    described.name = description.name;
    described.up = described.running = description.up;
    described.broadcast = true;
    described.mtu = Mtu;
    described.addresses.push_back(
        InterfaceAddress{description.address, static_cast<std::uint8_t>(std::popcount(description.subnetMask)), false});
    return described;
}

std::vector<AddressPlan> GigEModel::PlanAddresses(const std::function<bool(const GvcpDiscoveryRecord&)>& wanted) const {
    std::set<std::uint32_t> taken;
    for (const NetworkInterfaceDescription& network : m_interfaces) {
        taken.insert(network.address);
    }
    for (const Camera& camera : m_cameras) {
        taken.insert(camera.registers->GetAddress());
        taken.insert(camera.registers->GetGateway());
    }
    std::vector<AddressPlan> plans;
    for (const Camera* camera : Heard()) {
        AddressPlan plan;
        plan.record = camera->registers->GetDiscoveryRecord();
        if (!wanted(plan.record)) {
            continue;
        }
        const NetworkInterface interface = InterfaceAt(camera->interface);
        plan.interface = interface.index;
        plan.interfaceName = interface.name;
        plan.interfaceAddress = interface.addresses.front();
        plan.usability = UsabilityOf(*camera);
        plan.alreadyRight = !NeedsAddress(plan.usability);
        if (!plan.alreadyRight) {
            const auto free = FindFreeAddresses(plan.interfaceAddress, taken, camera->registers->GetMac(), 1);
            plan.newIp = free.empty() ? 0 : free.front();
            plan.newMask = free.empty() ? 0 : plan.interfaceAddress.GetMask();
            plan.status = free.empty() ? HAL_FAILED : HAL_OK;
            taken.insert(plan.newIp);
        }
        plans.push_back(plan);
    }
    return plans;
}

ControlInfo GigEModel::ControlOf(Camera& camera, const Simulated::Endpoint& self, Simulated::TimePoint now) {
    using namespace Gvcp::Register;
    ControlInfo control;
    camera.registers->ExpireControl(now);
    std::uint32_t privilege = 0;
    const Gvcp::Status status = camera.registers->Read(self, ControlChannelPrivilege, &privilege);
    camera.registers->Touch(self, now);
    if (status == Gvcp::Status::AccessDenied) {
        control.state = ControlState::Exclusive;
        return control;
    }
    if ((privilege & (Gvcp::Ccp::ControlAccess | Gvcp::Ccp::ExclusiveAccess)) == 0) {
        control.state = ControlState::Free;
        return control;
    }
    std::uint32_t port = 0;
    camera.registers->Read(self, PrimaryApplicationIpAddress, &control.ownerIp);
    camera.registers->Read(self, PrimaryApplicationPort, &port);
    control.ownerPort = static_cast<std::uint16_t>(port);
    const bool ours = camera.registers->GetPrimaryApplication() == self;
    control.state = ours ? ControlState::Ours : ControlState::Controlled;
    return control;
}

CameraDiagnosis GigEModel::DescribeCamera(const Camera& camera) const {
    CameraDiagnosis entry;
    entry.record = camera.registers->GetDiscoveryRecord();
    entry.interface = NumberOf(camera.interface);
    entry.usability = UsabilityOf(camera);
    entry.reachable = CanBeTalkedTo(camera);
    entry.listed = entry.present = entry.usability == GigEUsability::Usable;
    entry.addressTaken = entry.usability == GigEUsability::AddressTaken;
    return entry;
}

GigEDiagnosis GigEModel::Diagnose(bool askControl, std::uint16_t self, Simulated::TimePoint now) {
    GigEDiagnosis diagnosis;
    for (std::size_t i = 0; i < m_interfaces.size(); ++i) {
        InterfaceDiagnosis entry;
        entry.interface = InterfaceAt(i);
        entry.used = m_interfaces[i].up;
        entry.linkSpeed = m_interfaces[i].up ? LinkSpeed : 0;
        entry.reason = m_interfaces[i].up ? "" : "down";
        entry.localPort = self;
        diagnosis.interfaces.push_back(entry);
    }
    for (const Camera* heard : Heard()) {
        Camera& camera = m_cameras[static_cast<std::size_t>(heard - m_cameras.data())];
        CameraDiagnosis entry = DescribeCamera(camera);
        if (askControl && entry.listed) {
            const Simulated::Endpoint peer{m_interfaces[camera.interface].address, self};
            entry.control = ControlOf(camera, peer, now);
            camera.registers->Read(peer, Gvcp::Register::StreamChannelPacketSize, &entry.packetSize);
        }
        ++diagnosis.interfaces[camera.interface].heard;
        diagnosis.cameras.push_back(entry);
    }
    return diagnosis;
}

}  // namespace Nimbrel2::Platform
