// SPDX-License-Identifier: Apache-2.0
// Drivers that list what a script has attached. Any thread; the one mutex is in ScriptedBuses.
#include "tests/tools/ScriptedBuses.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace Nimbrel2::Tool::Testing {
namespace {

using Platform::ConfigInfo;
using CameraPointer = std::shared_ptr<ScriptedCamera>;

std::string BusOf(const std::string& kind) { return kind == "virtual" || kind == "device" ? "1394" : kind; }

// \s and \xNN.
std::string Unescape(const std::string& word) {
    std::string text;
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (word[i] != '\\') {
            text += word[i];
        } else if (word.compare(i, 2, "\\s") == 0) {
            text += ' ';
            ++i;
        } else {
            text += static_cast<char>(std::stoul(word.substr(i + 2, 2), nullptr, 16));
            i += 3;
        }
    }
    return text;
}

template <std::size_t size>
void Fill(const std::string& text, char (&field)[size]) {
    std::memcpy(field, text.data(), std::min(text.size(), size));
}

GvcpDiscoveryRecord RecordOf(const ScriptedCamera& camera) {
    GvcpDiscoveryRecord record{};
    record.ipAddress = camera.number;
    record.subnetMask = 0xFFFFFF00;
    record.macHigh = 0x0200;  // with the address, as no two cameras of a script have one
    record.macLow = camera.number;
    Fill(camera.vendor, record.manufacturerName);
    Fill(camera.model, record.modelName);
    Fill(camera.serialText, record.serialNumber);
    return record;
}

class ScriptedFireWireDevice final : public Platform::FireWireDevice {
public:
    ScriptedFireWireDevice(ScriptedBuses& buses, CameraPointer camera)
        : m_buses(buses), m_camera(std::move(camera)), m_listing(buses.CurrentListing()) {}

    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        *info = {{0, 0xFFC0, m_camera->serialNumber, 0, 0}, m_camera->vendor, m_camera->model};
        return m_buses.InfoStatus(*m_camera, m_listing);
    }
    std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) override {
        *high = m_camera->number;
        *low = m_camera->serialNumber;
        return HAL_OK;
    }
    std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) override {
        *node = 0;
        *busNumber = 0;
        return HAL_OK;
    }
    std::uint32_t ReadQuadlet(std::uint64_t, std::uint32_t*) override { return HAL_NO_SUCH_REGISTER; }
    std::uint32_t WriteQuadlet(std::uint64_t, std::uint32_t) override { return HAL_NO_SUCH_REGISTER; }
    std::uint32_t ReadPhy(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t*) override {
        return HAL_NOT_SUPPORTED;
    }
    std::uint32_t WritePhy(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) override {
        return HAL_NOT_SUPPORTED;
    }
    std::uint32_t FireBusReset() override { return HAL_NOT_SUPPORTED; }
    std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>*, std::uint64_t*, std::uint32_t*) override {
        return HAL_NOT_SUPPORTED;
    }
    std::uint32_t GetNodeSerialNumbers(std::vector<std::uint32_t>*) override { return HAL_NOT_SUPPORTED; }

private:
    ScriptedBuses& m_buses;
    const CameraPointer m_camera;
    const std::uint64_t m_listing;
};

class ScriptedUsbDevice final : public Platform::UsbDevice {
public:
    ScriptedUsbDevice(ScriptedBuses& buses, CameraPointer camera)
        : m_buses(buses), m_camera(std::move(camera)), m_listing(buses.CurrentListing()) {}

    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        *info = {{0, 0, m_camera->serialNumber, m_camera->number, 0}, m_camera->vendor, m_camera->model};
        return m_buses.InfoStatus(*m_camera, m_listing);
    }
    std::uint32_t GetSerialText(std::string* text) override {
        *text = m_camera->serialText;
        return HAL_OK;
    }
    std::uint32_t GetSpeed(std::uint32_t* megabits) override {
        *megabits = m_camera->number;
        return HAL_OK;
    }
    std::uint32_t ReadRegister(std::uint64_t, std::uint32_t*) override { return HAL_NOT_SUPPORTED; }
    std::uint32_t WriteRegister(std::uint64_t, std::uint32_t) override { return HAL_NOT_SUPPORTED; }
    std::uint32_t FireBusReset() override { return HAL_NOT_SUPPORTED; }
    std::uint32_t GetLinkInfo(std::uint32_t*) override { return HAL_NOT_SUPPORTED; }
    std::uint32_t GetPortStatus(std::uint32_t*) override { return HAL_NOT_SUPPORTED; }
    std::uint32_t GetTree(std::vector<UsbSelfId>*, std::uint32_t*, std::uint64_t*, std::uint32_t*) override {
        return HAL_NO_TREE;
    }

private:
    ScriptedBuses& m_buses;
    const CameraPointer m_camera;
    const std::uint64_t m_listing;
};

class ScriptedGigEDevice final : public Platform::GigEDevice {
public:
    ScriptedGigEDevice(ScriptedBuses& buses, CameraPointer camera)
        : m_buses(buses), m_camera(std::move(camera)), m_listing(buses.CurrentListing()) {}

    std::uint32_t GetRecord(GvcpDiscoveryRecord* record) override {
        *record = RecordOf(*m_camera);
        return m_buses.InfoStatus(*m_camera, m_listing);
    }
    std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) override {
        *value = address == 0x24 ? m_camera->number : 0;
        return HAL_OK;
    }
    std::uint32_t WriteRegister(std::uint32_t, std::uint32_t) override { return HAL_WRITE_PROTECTED; }
    std::uint32_t IsInMonitorMode(bool* monitor) override {
        *monitor = false;
        return HAL_OK;
    }
    std::uint32_t GetLocalPort(std::uint32_t*) override { return HAL_NOT_SUPPORTED; }
    std::uint32_t GetLocalAddress(std::uint32_t*) override { return HAL_NOT_SUPPORTED; }

private:
    ScriptedBuses& m_buses;
    const CameraPointer m_camera;
    const std::uint64_t m_listing;
};

// What the three buses have in common.
template <class BusInterface>
class ScriptedBus : public BusInterface {
public:
    ScriptedBus(ScriptedBuses& buses, std::string name, Platform::BusEventSink& sink)
        : m_buses(buses), m_name(std::move(name)), m_sink(sink) {}

    std::uint32_t Start() override {
        m_buses.Start(m_name, &m_sink);
        return HAL_OK;
    }
    void Stop() override { m_buses.Stop(m_name); }

protected:
    ScriptedBuses& GetBuses() { return m_buses; }

    template <class Scripted, class Device>
    std::uint32_t ListAs(const std::string& kind, Platform::Listing<Device>* listing) {
        std::vector<CameraPointer> cameras;
        const std::uint32_t status = m_buses.List(m_name, kind, &cameras, &listing->state);
        for (const CameraPointer& camera : cameras) {
            listing->devices.push_back(std::make_shared<Scripted>(m_buses, camera));
        }
        return status;
    }

private:
    ScriptedBuses& m_buses;
    const std::string m_name;
    Platform::BusEventSink& m_sink;
};

class ScriptedFireWireBus final : public ScriptedBus<Platform::FireWireBus> {
public:
    using ScriptedBus::ScriptedBus;
    using Devices = Platform::Listing<Platform::FireWireDevice>;

    std::uint32_t ListCameras(Devices* cameras) override { return ListAs<ScriptedFireWireDevice>("1394", cameras); }
    std::uint32_t ListVirtualCameras(const std::vector<std::uint64_t>&,
                                     std::vector<std::shared_ptr<Platform::FireWireDevice>>* cameras) override {
        Devices listing;
        const std::uint32_t status = ListAs<ScriptedFireWireDevice>("virtual", &listing);
        *cameras = std::move(listing.devices);
        return status;
    }
    std::uint32_t ListDevices(Devices* devices) override { return ListAs<ScriptedFireWireDevice>("device", devices); }
};

class ScriptedUsbBus final : public ScriptedBus<Platform::UsbBus> {
public:
    using ScriptedBus::ScriptedBus;
    std::uint32_t ListCameras(Platform::Listing<Platform::UsbDevice>* cameras) override {
        return ListAs<ScriptedUsbDevice>("usb", cameras);
    }
};

class ScriptedGigEBus final : public ScriptedBus<Platform::GigEBus> {
public:
    using ScriptedBus::ScriptedBus;
    std::uint32_t ListCameras(Platform::Listing<Platform::GigEDevice>* cameras) override {
        return ListAs<ScriptedGigEDevice>("gige", cameras);
    }
    std::uint32_t Discover(const std::optional<Platform::GigECameraName>&, Platform::GigEDiscovery*) override {
        return HAL_OK;
    }
    std::uint32_t ForceAddress(const Platform::GigEAddress&, Platform::ForceIpResult*) override {
        return HAL_NO_ACKNOWLEDGE;
    }
    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber,
                                std::vector<Platform::AddressPlan>*) override {
        return serialNumber ? HAL_GONE : HAL_OK;
    }
    std::uint32_t ApplyAddresses(std::vector<Platform::AddressPlan>*) override { return HAL_OK; }
    std::uint32_t FindAddressHolder(std::uint32_t, Platform::AddressHolder*) override { return HAL_OK; }
    std::uint32_t Diagnose(bool askControl, Platform::GigEDiagnosis* diagnosis) override {
        *diagnosis = GetBuses().Diagnose(askControl);
        return HAL_OK;
    }
    std::uint32_t GetSearchReport(Platform::GigESearchReport*) override { return HAL_OK; }
    std::uint32_t FindMutedCameras(Platform::GigEHearing*) override { return HAL_OK; }
};

const char* DriverName(Platform::Driver driver) { return driver == Platform::Driver::None ? "none" : "linux"; }

}  // namespace

void ScriptedBuses::Do(const std::string& line) {
    std::istringstream stream(line);
    std::string verb;
    stream >> verb;
    const auto word = [&stream] {
        std::string text;
        stream >> text;
        return Unescape(text);
    };
    const auto number = [&word] { return static_cast<std::uint32_t>(std::stoul(word(), nullptr, 0)); };
    ScriptedCamera camera;
    camera.kind = verb;
    if (verb == "gige") {
        camera.serialText = word();
        camera.number = ntohl(inet_addr(word().c_str()));
        camera.vendor = word();
        camera.model = word();
        Attach(camera);
    } else if (verb == "usb" || verb == "1394" || verb == "virtual") {
        camera.serialText = word();
        camera.serialNumber = static_cast<std::uint32_t>(std::stoul(camera.serialText));
        if (verb == "usb") {
            camera.number = number();
        }
        camera.vendor = word();
        camera.model = word();
        Attach(camera);
    } else if (verb == "heard") {
        camera.serialText = word();
        camera.number = ntohl(inet_addr(word().c_str()));
        const std::lock_guard lock(m_mutex);
        m_heard.push_back(std::make_shared<ScriptedCamera>(camera));
    } else if (verb == "without") {
        m_withoutDriver.insert(word());
    } else if (verb == "device") {
        camera.number = number();
        camera.serialNumber = number();
        camera.serialText = std::to_string(camera.serialNumber);
        Attach(camera);
    } else if (verb == "remove") {
        Remove(word());
    } else if (verb == "stale") {
        const std::string serialText = word();
        const std::uint32_t status = number();
        const std::lock_guard lock(m_mutex);
        for (const CameraPointer& known : m_cameras) {
            if (known->serialText != serialText) {
                continue;
            }
            known->staleListings = m_listings;
            known->staleStatus = status;
        }
    } else if (verb == "reset") {
        const std::string bus = word();
        {
            const std::lock_guard lock(m_mutex);
            ++m_buses.at(bus).resets;
        }
        Report(bus);
    } else if (verb == "fail") {
        const std::string bus = word();
        const std::uint32_t status = number();
        const std::lock_guard lock(m_mutex);
        m_buses.at(bus).status = status;
    } else if (verb == "hold" || verb == "release") {
        const std::lock_guard lock(m_mutex);
        m_buses.at(word()).held = verb == "hold";
        m_changed.notify_all();
    } else if (verb == "tell") {
        m_tellOptions = true;
    } else {
        throw std::runtime_error("the script says nothing: " + line);
    }
}

void ScriptedBuses::Attach(const ScriptedCamera& camera) {
    {
        const std::lock_guard lock(m_mutex);
        m_cameras.push_back(std::make_shared<ScriptedCamera>(camera));
    }
    Report(BusOf(camera.kind));
}

void ScriptedBuses::Remove(const std::string& serialText) {
    std::string bus;
    {
        const std::lock_guard lock(m_mutex);
        const auto found = std::find_if(m_cameras.begin(), m_cameras.end(),
                                        [&](const CameraPointer& camera) { return camera->serialText == serialText; });
        if (found == m_cameras.end()) {
            throw std::runtime_error("there is no camera " + serialText);
        }
        bus = BusOf((*found)->kind);
        m_cameras.erase(found);
    }
    Report(bus);
}

// Two cameras that share all texts are told apart by where they live in memory, as real ones are by their sockets.
Platform::BusState ScriptedBuses::StateOf(const std::string& bus) const {
    Platform::BusState state{m_buses.at(bus).resets, {}};
    for (const CameraPointer& camera : m_cameras) {
        if (BusOf(camera->kind) != bus || camera->kind == "virtual") {
            continue;
        }
        state.devices.push_back({std::to_string(reinterpret_cast<std::uintptr_t>(camera.get()))});
    }
    return state;
}

void ScriptedBuses::Report(const std::string& bus) {
    const std::lock_guard lock(m_mutex);
    Platform::BusEventSink* sink = m_buses.at(bus).sink;
    if (sink != nullptr) {
        sink->Report(StateOf(bus));
    }
}

void ScriptedBuses::Start(const std::string& bus, Platform::BusEventSink* sink) {
    const std::lock_guard lock(m_mutex);
    m_buses.at(bus).sink = sink;
    sink->Report(StateOf(bus));
}

void ScriptedBuses::Stop(const std::string& bus) {
    const std::lock_guard lock(m_mutex);
    m_buses.at(bus) = {};  // nobody waits in a bus that has stopped
    m_changed.notify_all();
}

Platform::GigEDiagnosis ScriptedBuses::Diagnose(bool askControl) {
    constexpr int InterfaceIndex = 2;
    Platform::GigEDiagnosis diagnosis;
    Platform::InterfaceDiagnosis interface;
    interface.interface.index = InterfaceIndex;
    interface.interface.name = "eth0";
    interface.interface.up = interface.interface.running = interface.interface.broadcast = true;
    interface.interface.addresses.push_back({0xC0A84D01, 24});
    interface.used = true;
    interface.linkSpeed = 1000;
    diagnosis.interfaces.push_back(interface);
    const auto add = [&](const ScriptedCamera& camera, bool listed) {
        Platform::CameraDiagnosis entry;
        entry.record = RecordOf(camera);
        entry.interface = InterfaceIndex;
        entry.reachable = entry.present = entry.listed = listed;
        entry.usability = listed ? Platform::GigEUsability::Usable : Platform::GigEUsability::OtherSubnet;
        if (askControl && listed) {
            entry.control.state = Platform::ControlState::Free;
        }
        diagnosis.cameras.push_back(entry);
    };
    const std::lock_guard lock(m_mutex);
    for (const CameraPointer& camera : m_cameras) {
        if (camera->kind == "gige") {
            add(*camera, true);
        }
    }
    for (const CameraPointer& camera : m_heard) {
        add(*camera, false);
    }
    return diagnosis;
}

std::uint32_t ScriptedBuses::List(const std::string& bus, const std::string& kind, std::vector<CameraPointer>* cameras,
                                  Platform::BusState* listed) {
    std::unique_lock lock(m_mutex);
    const Bus& state = m_buses.at(bus);
    if (state.held) {
        std::fprintf(stderr, "listing %s is held\n", bus.c_str());
        m_changed.wait(lock, [&state] { return !state.held; });
    }
    ++m_listings;
    if (state.status != HAL_OK) {
        return state.status;
    }
    for (const CameraPointer& camera : m_cameras) {
        if (camera->kind == kind) {
            cameras->push_back(camera);
        }
    }
    *listed = StateOf(bus);
    return HAL_OK;
}

std::uint64_t ScriptedBuses::CurrentListing() {
    const std::lock_guard lock(m_mutex);
    return m_listings;
}

std::uint32_t ScriptedBuses::InfoStatus(const ScriptedCamera& camera, std::uint64_t listing) {
    const std::lock_guard lock(m_mutex);
    return listing <= camera.staleListings ? camera.staleStatus : std::uint32_t{HAL_OK};
}

Platform::Drivers ScriptedBuses::MakeDrivers(const Platform::Options& options, const Platform::BusEventSinks& sinks) {
    if (m_tellOptions) {
        std::string text = std::string("options: 1394=") + DriverName(options.fireWire) +
                           " usb=" + DriverName(options.usb) + " gige=" + DriverName(options.gigE) + " interfaces=";
        for (const std::string& name : options.networkInterfaces) {
            text += name + ",";
        }
        std::fprintf(stderr, "%s window=%lld\n", text.c_str(), static_cast<long long>(options.discoveryWindow.count()));
    }
    Platform::Drivers drivers;
    drivers.fireWire = std::make_unique<ScriptedFireWireBus>(*this, "1394", sinks.fireWire);
    drivers.usb = std::make_unique<ScriptedUsbBus>(*this, "usb", sinks.usb);
    drivers.gigE = std::make_unique<ScriptedGigEBus>(*this, "gige", sinks.gigE);
    if (m_withoutDriver.count("1394") != 0) {
        drivers.fireWire = nullptr;
    }
    if (m_withoutDriver.count("usb") != 0) {
        drivers.usb = nullptr;
    }
    if (m_withoutDriver.count("gige") != 0) {
        drivers.gigE = nullptr;
    }
    return drivers;
}

}  // namespace Nimbrel2::Tool::Testing
