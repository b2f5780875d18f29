// SPDX-License-Identifier: Apache-2.0
// What happens to a rig, and the events that follow from it. Any thread; m_mutex throughout, let go of while a fault
// waits.
#include "platform/rig/Rig.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <set>
#include <thread>

namespace Nimbrel2::Platform {

const std::vector<std::string>& RigFaultFunctions() {
    // Never destroyed: threads may outlive static objects.
    static const auto& functions = *new std::vector<std::string>{
        "HAL_1394DeregisterBusEvents",
        "HAL_1394FireBusReset",
        "HAL_1394FreeCamera",
        "HAL_1394FreeDevice",
        "HAL_1394GetCameras",
        "HAL_1394GetConfigInfo",
        "HAL_1394GetDeviceInfo",
        "HAL_1394GetDevices",
        "HAL_1394GetNode",
        "HAL_1394GetNodeSerialNumbers",
        "HAL_1394GetSelfIds",
        "HAL_1394GetVirtualCameras",
        "HAL_1394ReadPhyRegister",
        "HAL_1394ReadRegister",
        "HAL_1394RegisterBusEvents",
        "HAL_1394WritePhyRegister",
        "HAL_1394WriteRegister",
        "HAL_CleanupLibrary",
        "HAL_GigEDeregisterBusEvents",
        "HAL_GigEFreeCamera",
        "HAL_GigEGetCameraIpAddress",
        "HAL_GigEGetCameras",
        "HAL_GigEGetConfigInfo",
        "HAL_GigEGetDiscoveryRecord",
        "HAL_GigEGetLocalApplicationIpAddress",
        "HAL_GigEGetLocalApplicationPort",
        "HAL_GigEIsInMonitorMode",
        "HAL_GigEReadRegister",
        "HAL_GigERegisterBusEvents",
        "HAL_GigEWriteRegister",
        "HAL_GvcpAutoForceIpToCamera",
        "HAL_GvcpDiscovery",
        "HAL_GvcpForceIp",
        "HAL_GvcpForceIpAuto",
        "HAL_InitLibrary",
        "HAL_UsbDeregisterBusEvents",
        "HAL_UsbFireBusReset",
        "HAL_UsbFreeCamera",
        "HAL_UsbGetCameras",
        "HAL_UsbGetConfigInfo",
        "HAL_UsbGetLinkInfo",
        "HAL_UsbGetPortStatus",
        "HAL_UsbGetSelfIds",
        "HAL_UsbGetSerialText",
        "HAL_UsbGetSpeed",
        "HAL_UsbReadRegister",
        "HAL_UsbRegisterBusEvents",
        "HAL_UsbWriteRegister",
    };
    return functions;
}

namespace {

constexpr std::size_t MaxVirtualCameras = 256;  // what a caller has room for

}  // namespace

std::vector<RigProblem> Rig::Validate(const RigDescription& description) {
    std::vector<RigProblem> problems;
    std::set<std::string> names;
    const auto checkName = [&](const std::string& name, const std::string& where) {
        if (name.empty() || !names.insert(name).second) {
            problems.push_back({where + "/name", "\"" + name + "\" is empty or taken by something else in the rig"});
        }
    };
    const auto append = [&problems](std::vector<RigProblem> more) {
        std::move(more.begin(), more.end(), std::back_inserter(problems));
    };
    for (std::size_t i = 0; i < description.fireWire.size(); ++i) {
        const FireWireBusDescription& bus = description.fireWire[i];
        const std::string where = "/firewire/" + std::to_string(i);
        checkName(bus.name, where);
        append(FireWireModel::Validate(bus, where));
        for (std::size_t k = 0; k < bus.phys.size(); ++k) {
            checkName(bus.phys[k].name, where + "/phys/" + std::to_string(k));
        }
        for (std::size_t k = 0; k < bus.placedCameras.size(); ++k) {
            checkName(bus.placedCameras[k].camera.name, where + "/placedCameras/" + std::to_string(k));
        }
    }
    for (std::size_t i = 0; i < description.usb.size(); ++i) {
        const UsbHostDescription& host = description.usb[i];
        const std::string where = "/usb/" + std::to_string(i);
        checkName(host.name, where);
        append(UsbModel::Validate(host, where));
        for (std::size_t k = 0; k < host.devices.size(); ++k) {
            checkName(host.devices[k].name, where + "/devices/" + std::to_string(k));
        }
        for (std::size_t k = 0; k < host.placedCameras.size(); ++k) {
            checkName(host.placedCameras[k].camera.name, where + "/placedCameras/" + std::to_string(k));
        }
    }
    append(GigEModel::Validate(description.gigE, "/gige"));
    for (std::size_t i = 0; i < description.gigE.size(); ++i) {
        const NetworkInterfaceDescription& network = description.gigE[i];
        const std::string where = "/gige/" + std::to_string(i);
        checkName(network.name, where);
        for (std::size_t k = 0; k < network.cameras.size(); ++k) {
            checkName(network.cameras[k].name, where + "/cameras/" + std::to_string(k));
        }
    }
    if (description.virtualCameras.size() > MaxVirtualCameras) {
        problems.push_back({"/virtualCameras", "a computer has at most 256 virtual cameras, not " +
                                                   std::to_string(description.virtualCameras.size())});
    }
    return problems;
}

namespace {

std::string NoDevice(const std::string& device) { return "the rig has no device named \"" + device + "\""; }

}  // namespace

Rig::Rig(RigDescription description)
    : m_gigE(std::move(description.gigE)), m_virtualCameras(std::move(description.virtualCameras)) {
    m_fireWire.reserve(description.fireWire.size());
    for (FireWireBusDescription& bus : description.fireWire) {
        m_fireWireNames.push_back(bus.name);
        const auto card = static_cast<unsigned int>(m_fireWire.size());
        m_fireWire.emplace_back(std::move(bus), card);
    }
    m_usb.reserve(description.usb.size());
    for (UsbHostDescription& host : description.usb) {
        m_usbNames.push_back(host.name);
        const auto number = static_cast<unsigned int>(m_usb.size());
        m_usb.emplace_back(std::move(host), number);
    }
}

FireWireModel* Rig::FireWireOf(const std::string& device) {
    const auto found =
        std::find_if(m_fireWire.begin(), m_fireWire.end(), [&](const FireWireModel& bus) { return bus.Has(device); });
    return found == m_fireWire.end() ? nullptr : &*found;
}

UsbModel* Rig::UsbOf(const std::string& device) {
    const auto found = std::find_if(m_usb.begin(), m_usb.end(), [&](const UsbModel& host) { return host.Has(device); });
    return found == m_usb.end() ? nullptr : &*found;
}

BusState Rig::FireWireState() const {
    BusState state{m_fireWireReports.resets, {}};
    for (const FireWireModel& bus : m_fireWire) {
        for (const FireWireModel::Node& node : bus.Nodes()) {
            const std::uint64_t eui64 = node.phy->eui64;
            PresentDevice device{std::to_string(bus.Card()) + "/" + std::to_string(eui64)};
            if (node.phy->kind == PhyKind::Device) {  // only a node that is no camera is named in events
                device.firstWord = static_cast<std::uint32_t>(eui64 >> 32);
                device.secondWord = static_cast<std::uint32_t>(eui64);
            } else if (node.phy->kind != PhyKind::Camera) {
                continue;
            }
            state.devices.push_back(std::move(device));
        }
    }
    return state;
}

BusState Rig::UsbState() const {
    BusState state{m_usbReports.resets, {}};
    for (const UsbModel& host : m_usb) {
        for (const UsbModel::Attached& attached : host.Devices()) {
            if (attached.device->kind == UsbKind::Camera) {
                state.devices.push_back(PresentDevice{attached.device->name});
            }
        }
    }
    return state;
}

// A camera whose address changes is another one to everybody above: it leaves and comes.
BusState Rig::GigEState() const {
    BusState state;
    for (const GigEModel::Camera* camera : m_gigE.Reached()) {
        state.devices.push_back(PresentDevice{camera->name, camera->registers->GetAddress()});
    }
    return state;
}

void Rig::Report(const Reports& reports, BusState (Rig::*state)() const) const noexcept {
    if (reports.sink == nullptr) {
        return;
    }
    try {
        if (m_fast) {
            reports.sink->ReportSettled((this->*state)());
        } else {
            reports.sink->Report((this->*state)());
        }
    } catch (const std::bad_alloc&) {
        reports.sink->ReportUnknown();
    }
}

// A change of the cables is a bus reset.
template <class Change>
bool Rig::ChangeFireWire(Change change) {
    if (!change()) {
        return false;
    }
    ++m_fireWireReports.resets;
    Report(m_fireWireReports, &Rig::FireWireState);
    return true;
}

template <class Change>
bool Rig::ChangeUsb(Change change) {
    if (!change()) {
        return false;
    }
    ++m_usbReports.resets;
    Report(m_usbReports, &Rig::UsbState);
    return true;
}

template <class Change>
bool Rig::ChangeGigE(Change change) {
    if (!change(m_gigE)) {
        return false;
    }
    Report(m_gigEReports, &Rig::GigEState);
    return true;
}

std::optional<std::string> Rig::Plug(const std::string& device) {
    const LockGuard lock(m_mutex);
    if (FireWireModel* bus = FireWireOf(device)) {
        return ChangeFireWire([&] { return bus->Plug(device); })
                   ? std::nullopt
                   : std::optional<std::string>("\"" + device + "\" is plugged in already");
    }
    if (UsbModel* host = UsbOf(device)) {
        return ChangeUsb([&] { return host->Plug(device); })
                   ? std::nullopt
                   : std::optional<std::string>("\"" + device + "\" is plugged in already");
    }
    if (m_gigE.Has(device)) {
        return ChangeGigE([&](GigEModel& model) { return model.Plug(device); })
                   ? std::nullopt
                   : std::optional<std::string>("\"" + device + "\" is plugged in already");
    }
    return NoDevice(device);
}

std::optional<std::string> Rig::Unplug(const std::string& device) {
    const LockGuard lock(m_mutex);
    if (FireWireModel* bus = FireWireOf(device)) {
        return ChangeFireWire([&] { return bus->Unplug(device); })
                   ? std::nullopt
                   : std::optional<std::string>("\"" + device + "\" is not plugged in, or the computer's own card");
    }
    if (UsbModel* host = UsbOf(device)) {
        return ChangeUsb([&] { return host->Unplug(device); })
                   ? std::nullopt
                   : std::optional<std::string>("\"" + device + "\" is not plugged in");
    }
    if (m_gigE.Has(device)) {
        return ChangeGigE([&](GigEModel& model) { return model.Unplug(device); })
                   ? std::nullopt
                   : std::optional<std::string>("\"" + device + "\" is not plugged in");
    }
    return NoDevice(device);
}

std::optional<std::string> Rig::Move(const std::string& device, unsigned int ownPort, const CableEnd& to) {
    const LockGuard lock(m_mutex);
    std::optional<std::string> problem;
    if (FireWireModel* bus = FireWireOf(device)) {
        ChangeFireWire([&] {
            problem = bus->Move(device, ownPort, to);
            return !problem.has_value();
        });
    } else if (UsbModel* host = UsbOf(device)) {
        ChangeUsb([&] {
            problem = host->Move(device, to.phy, to.port);
            return !problem.has_value();
        });
    } else if (m_gigE.Has(device)) {
        ChangeGigE([&](GigEModel& model) {
            problem = model.Move(device, to.phy);
            return !problem.has_value();
        });
    } else {
        problem = NoDevice(device);
    }
    return problem;
}

template <class Change>
std::optional<std::string> Rig::ChangeGigECamera(const std::string& camera, Change change) {
    const LockGuard lock(m_mutex);
    if (!m_gigE.Has(camera)) {
        return "the rig has no GigE camera named \"" + camera + "\"";
    }
    std::optional<std::string> problem;
    ChangeGigE([&](GigEModel& model) {
        problem = change(model);
        return !problem.has_value();
    });
    return problem;
}

std::optional<std::string> Rig::SetLink(const std::string& interfaceName, bool up) {
    const LockGuard lock(m_mutex);
    if (!m_gigE.HasInterface(interfaceName)) {
        return "the rig has no network interface named \"" + interfaceName + "\"";
    }
    ChangeGigE([&](GigEModel& model) { return model.SetLink(interfaceName, up); });
    return std::nullopt;
}

std::optional<std::string> Rig::SetAddress(const std::string& camera, std::uint32_t address, std::uint32_t mask,
                                           std::uint32_t gateway) {
    return ChangeGigECamera(camera, [&](GigEModel& model) -> std::optional<std::string> {
        model.SetAddress(camera, address, mask, gateway);
        return std::nullopt;
    });
}

std::optional<std::string> Rig::Hold(const std::string& camera, const Simulated::ControlOwner& owner) {
    return ChangeGigECamera(camera, [&](GigEModel& model) -> std::optional<std::string> {
        model.Hold(camera, owner);
        return std::nullopt;
    });
}

std::optional<std::string> Rig::Release(const std::string& camera) {
    return ChangeGigECamera(camera, [&](GigEModel& model) -> std::optional<std::string> {
        model.Release(camera);
        return std::nullopt;
    });
}

std::optional<std::string> Rig::SetFaults(const std::string& camera, const Simulated::Faults& faults) {
    return ChangeGigECamera(camera, [&](GigEModel& model) -> std::optional<std::string> {
        model.SetFaults(camera, faults);
        return std::nullopt;
    });
}

std::uint32_t Rig::ForceAddress(const GigEAddress& address, ForceIpResult* result) {
    const LockGuard lock(m_mutex);
    std::uint32_t status = HAL_OK;
    ChangeGigE([&](GigEModel& model) {
        status = model.ForceAddress(address, result);
        return true;
    });
    return status;
}

std::uint32_t Rig::ApplyAddresses(std::vector<AddressPlan>* plans) {
    const LockGuard lock(m_mutex);
    std::uint32_t first = HAL_OK;
    ChangeGigE([&](GigEModel& model) {
        for (AddressPlan& plan : *plans) {
            if (plan.status == HAL_OK && plan.newIp != 0) {
                ForceIpResult result;
                const std::uint64_t mac = static_cast<std::uint64_t>(plan.record.macHigh) << 32 | plan.record.macLow;
                plan.status = model.ForceAddress({mac, plan.newIp, plan.newMask, 0}, &result);
            }
            first = first == HAL_OK ? plan.status : first;
        }
        return true;
    });
    return first;
}

std::optional<std::string> Rig::ResetBus(const std::string& bus, unsigned int count) {
    const LockGuard lock(m_mutex);
    for (std::size_t i = 0; i < m_fireWire.size(); ++i) {
        if (m_fireWireNames[i] == bus) {
            FireWireModel& model = m_fireWire[i];
            for (unsigned int k = 0; k < count; ++k) {
                ChangeFireWire([&model] {
                    model.Reset("");
                    return true;
                });
            }
            return std::nullopt;
        }
    }
    for (std::size_t i = 0; i < m_usb.size(); ++i) {
        if (m_usbNames[i] == bus) {
            UsbModel& host = m_usb[i];
            for (unsigned int k = 0; k < count; ++k) {
                ChangeUsb([&host] {
                    host.Reset();
                    return true;
                });
            }
            return std::nullopt;
        }
    }
    return "the rig has no FireWire bus or USB host named \"" + bus + "\"";
}

std::optional<std::string> Rig::FailBus(const std::string& bus) {
    const LockGuard lock(m_mutex);
    BusEventSink* sink = nullptr;
    if (std::count(m_fireWireNames.begin(), m_fireWireNames.end(), bus) != 0) {
        sink = m_fireWireReports.sink;
    } else if (std::count(m_usbNames.begin(), m_usbNames.end(), bus) != 0) {
        sink = m_usbReports.sink;
    } else {
        return "the rig has no FireWire bus or USB host named \"" + bus + "\"";
    }
    if (sink != nullptr) {
        sink->RaiseError();
    }
    return std::nullopt;
}

void Rig::AddFault(RigFault fault) {
    const LockGuard lock(m_mutex);
    m_faults.push_back(std::move(fault));
}

std::vector<RigFault> Rig::GetFaultsLeft() const {
    const LockGuard lock(m_mutex);
    return m_faults;
}

void Rig::SetFast(bool fast) {
    const LockGuard lock(m_mutex);
    m_fast = fast;
}

void Rig::ConnectFireWire(BusEventSink* sink) {
    const LockGuard lock(m_mutex);
    m_fireWireReports.sink = sink;
    Report(m_fireWireReports, &Rig::FireWireState);
}

void Rig::ConnectUsb(BusEventSink* sink) {
    const LockGuard lock(m_mutex);
    m_usbReports.sink = sink;
    Report(m_usbReports, &Rig::UsbState);
}

void Rig::ConnectGigE(BusEventSink* sink) {
    const LockGuard lock(m_mutex);
    m_gigEReports.sink = sink;
    Report(m_gigEReports, &Rig::GigEState);
}

void Rig::Wait(std::chrono::milliseconds time) {
    {
        const LockGuard lock(m_mutex);
        if (m_fast) {
            return;
        }
    }
    std::this_thread::sleep_for(time);
}

std::uint32_t Rig::Enter(const char* function) {
    std::uint32_t status = HAL_OK;
    std::chrono::milliseconds delay{0};
    {
        const LockGuard lock(m_mutex);
        for (auto fault = m_faults.begin(); fault != m_faults.end();) {
            if (fault->function != function || --fault->call != 0) {
                ++fault;
                continue;
            }
            status = fault->status;
            delay += fault->delay;
            fault = m_faults.erase(fault);
        }
    }
    Wait(delay);
    return status;
}

std::uint32_t Rig::ResetBusOf(unsigned int card, std::uint64_t eui64) {
    const LockGuard lock(m_mutex);
    for (FireWireModel& bus : m_fireWire) {
        if (bus.Card() == card && bus.FindNode(eui64) != nullptr) {
            ChangeFireWire([&bus, eui64] {
                bus.Reset(bus.FindNode(eui64)->phy->name);
                return true;
            });
            return HAL_OK;
        }
    }
    return HAL_GONE;
}

std::uint32_t Rig::ResetHostOf(const std::string& device) {
    const LockGuard lock(m_mutex);
    UsbModel* host = UsbOf(device);
    if (host == nullptr || host->Find(device) == nullptr) {
        return HAL_GONE;
    }
    ChangeUsb([host] {
        host->Reset();
        return true;
    });
    return HAL_OK;
}

std::vector<std::uint32_t> Rig::VirtualSerialNumbers(const std::vector<std::uint64_t>& taken) const {
    const LockGuard lock(m_mutex);
    std::set<std::uint64_t> used(taken.begin(), taken.end());
    std::vector<std::uint32_t> serialNumbers;
    for (std::uint32_t serial : m_virtualCameras) {
        while (!used.insert(serial).second) {
            ++serial;
        }
        serialNumbers.push_back(serial);
    }
    return serialNumbers;
}

}  // namespace Nimbrel2::Platform
