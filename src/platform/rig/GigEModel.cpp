// SPDX-License-Identifier: Apache-2.0
// Network interfaces and GigE cameras in memory. No thread, no lock: the rig that owns it guards it.
#include "platform/rig/GigEModel.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <set>
#include <utility>

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

/// 0 when the subnet is full.
std::uint32_t FindFreeAddress(const InterfaceAddress& subnet, const std::set<std::uint32_t>& taken) {
    const std::uint32_t first = subnet.address & subnet.GetMask();
    const std::uint32_t broadcast = first | ~subnet.GetMask();
    for (std::uint32_t address = first + 1; address < broadcast; ++address) {
        if (taken.count(address) == 0) {
            return address;
        }
    }
    return 0;
}

bool IsMask(std::uint32_t mask) { return (~mask & (~mask + 1)) == 0; }

std::string MacText(std::uint64_t mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>(mac >> 40 & 0xFF),
                  static_cast<unsigned>(mac >> 32 & 0xFF), static_cast<unsigned>(mac >> 24 & 0xFF),
                  static_cast<unsigned>(mac >> 16 & 0xFF), static_cast<unsigned>(mac >> 8 & 0xFF),
                  static_cast<unsigned>(mac & 0xFF));
    return text;
}

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
        if (!IsMask(network.subnetMask)) {
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
                                                              MacText(camera.options.mac)});
            }
            if (!IsMask(camera.options.subnetMask)) {
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
    const auto isLost = [this, &camera] {
        return std::uniform_real_distribution(0.0, 100.0)(m_random) < camera.faults.lossPercent;
    };
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

bool GigEModel::IsOnSubnet(const Camera& camera) const {
    const NetworkInterfaceDescription& network = m_interfaces[camera.interface];
    return ((camera.registers->GetAddress() ^ network.address) & network.subnetMask) == 0;
}

std::vector<const GigEModel::Camera*> GigEModel::Reached() const {
    std::vector<const Camera*> reached;
    std::set<std::pair<std::size_t, std::uint32_t>> addresses;
    for (const Camera* camera : Heard()) {
        if (IsOnSubnet(*camera) && addresses.insert({camera->interface, camera->registers->GetAddress()}).second) {
            reached.push_back(camera);
        }
    }
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

std::uint32_t GigEModel::ForceIp(std::uint64_t mac, std::uint32_t address, std::uint32_t mask, std::uint32_t gateway) {
    if (!HasInterfaceUp()) {
        return HAL_NO_BUS;
    }
    Camera* camera = FindHeard(mac);
    if (camera == nullptr) {
        return HAL_NO_ACKNOWLEDGE;
    }
    const Exchange exchange = Send(*camera);
    if (!exchange.arrived) {
        return HAL_NO_ACKNOWLEDGE;
    }
    camera->registers->ExpireControl(std::chrono::steady_clock::now());
    if (camera->registers->IsControlHeld()) {
        return HAL_NO_ACKNOWLEDGE;  // a camera in use discards the command
    }
    if (address == 0) {
        camera->registers->RestartIpConfiguration();  // without an acknowledge
        return HAL_NO_ACKNOWLEDGE;
    }
    camera->registers->SetIpConfiguration(address, mask, gateway);
    return static_cast<std::uint32_t>(exchange.answered ? HAL_OK : HAL_NO_ACKNOWLEDGE);
}

InterfaceAddress GigEModel::AddressOf(std::size_t interface) const {
    InterfaceAddress address;
    address.address = m_interfaces[interface].address;
    address.prefixLength = static_cast<std::uint8_t>(std::popcount(m_interfaces[interface].subnetMask));
    return address;
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
        plan.interface = NumberOf(camera->interface);
        plan.interfaceName = m_interfaces[camera->interface].name;
        plan.interfaceAddress = AddressOf(camera->interface);
        plan.alreadyRight = IsOnSubnet(*camera);
        if (!plan.alreadyRight) {
            plan.newIp = FindFreeAddress(plan.interfaceAddress, taken);
            plan.newMask = plan.newIp == 0 ? 0 : plan.interfaceAddress.GetMask();
            plan.status = plan.newIp == 0 ? HAL_FAILED : HAL_OK;
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
    const Gvcp::Status status = camera.registers->Read(self, kControlChannelPrivilege, &privilege);
    camera.registers->Touch(self, now);
    if (status == Gvcp::Status::AccessDenied) {
        control.state = ControlState::Exclusive;
        return control;
    }
    if ((privilege & (Gvcp::Ccp::kControlAccess | Gvcp::Ccp::kExclusiveAccess)) == 0) {
        control.state = ControlState::Free;
        return control;
    }
    std::uint32_t port = 0;
    camera.registers->Read(self, kPrimaryApplicationIpAddress, &control.ownerIp);
    camera.registers->Read(self, kPrimaryApplicationPort, &port);
    control.ownerPort = static_cast<std::uint16_t>(port);
    const bool ours = camera.registers->GetPrimaryApplication() == self;
    control.state = ours ? ControlState::Ours : ControlState::Controlled;
    return control;
}

GigEDiagnosis GigEModel::Diagnose(bool askControl, std::uint16_t self, Simulated::TimePoint now) {
    GigEDiagnosis diagnosis;
    for (std::size_t i = 0; i < m_interfaces.size(); ++i) {
        InterfaceDiagnosis entry;
        entry.interface.index = NumberOf(i);
        entry.interface.name = m_interfaces[i].name;
        entry.interface.up = entry.interface.running = entry.used = m_interfaces[i].up;
        entry.interface.broadcast = true;
        entry.interface.mtu = Mtu;
        entry.linkSpeed = m_interfaces[i].up ? LinkSpeed : 0;
        entry.interface.addresses.push_back(AddressOf(i));
        entry.reason = m_interfaces[i].up ? "" : "down";
        entry.localPort = self;
        diagnosis.interfaces.push_back(entry);
    }
    const std::vector<const Camera*> reached = Reached();
    for (const Camera* heard : Heard()) {
        Camera& camera = m_cameras[static_cast<std::size_t>(heard - m_cameras.data())];
        CameraDiagnosis entry;
        entry.record = camera.registers->GetDiscoveryRecord();
        entry.interface = NumberOf(camera.interface);
        entry.reachable = IsOnSubnet(camera);
        entry.listed = entry.present = std::find(reached.begin(), reached.end(), heard) != reached.end();
        entry.addressTaken = entry.reachable && !entry.listed;
        if (askControl && entry.listed) {
            const Simulated::Endpoint peer{m_interfaces[camera.interface].address, self};
            entry.control = ControlOf(camera, peer, now);
            camera.registers->Read(peer, Gvcp::Register::kStreamChannelPacketSize, &entry.packetSize);
        }
        diagnosis.cameras.push_back(entry);
    }
    return diagnosis;
}

}  // namespace Nimbrel2::Platform
