// SPDX-License-Identifier: Apache-2.0
// Drivers that do what a test says: devices by number, one scripted answer for all operations, a log of what was asked.
// Safe from any thread.
#ifndef NIMBREL2_TESTS_PLATFORM_HAL_FAKEDRIVERS_H
#define NIMBREL2_TESTS_PLATFORM_HAL_FAKEDRIVERS_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "hal/HAL.h"
#include "platform/Drivers.h"
#include "platform/hal/Process.h"
#include "tests/support/ReportedBus.h"

namespace Nimbrel2::Platform::Testing {

enum class Throw { Nothing, BadAlloc, RuntimeError };

/// What a test scripts and looks at. The drivers and devices made for it share it, so that late calls find it alive.
struct FakeWorld {
    // What the buses list.
    int fireWireCameras = 0;
    int virtualCameras = 0;
    int fireWireDevices = 0;
    int usbCameras = 0;
    int gigECameras = 0;
    GigEDiscovery discovered;
    ForceIpResult forced;
    AddressHolder holder;
    GigESearchReport report;
    GigEDiagnosis diagnosis;
    FireWireDiagnosis fireWireDiagnosis;
    UsbDiagnosis usbDiagnosis;
    GigEHearing hearing;
    std::vector<AddressPlan> plans;
    std::vector<SelfIdPacket_t> selfIds;
    std::vector<std::uint32_t> nodeSerialNumbers;
    std::vector<UsbSelfId> usbRecords;
    ConfigInfo configInfo{{11, 12, 13, 14, 15}, "Vendor", "Model"};
    std::string serialText = "SN-0042";
    GvcpDiscoveryRecord record{};

    // What Start answers, by bus.
    std::uint32_t fireWireStart = HAL_OK;
    std::uint32_t usbStart = HAL_OK;
    std::uint32_t gigEStart = HAL_OK;

    /// What every other operation answers, unless it throws.
    std::atomic<std::uint32_t> status{HAL_OK};
    std::atomic<Throw> toThrow{Throw::Nothing};

    /// Runs inside each listing, with the name of the operation.
    std::function<void(const std::string&)> duringListing;

    std::atomic<int> startedBuses{0};
    std::atomic<int> livingBuses{0};
    std::atomic<int> livingDevices{0};

    // What the drivers report, while a session runs.
    Nimbrel2::Testing::ReportedBus fireWire;
    Nimbrel2::Testing::ReportedBus usb;
    Nimbrel2::Testing::ReportedBus gigE;

    std::uint32_t Answer() const {
        switch (toThrow.load()) {
            case Throw::BadAlloc:
                throw std::bad_alloc();
            case Throw::RuntimeError:
                throw std::runtime_error("a driver that throws");
            case Throw::Nothing:
                break;
        }
        return status;
    }

    void Log(std::string line) {
        if (!logging) {
            return;
        }
        const std::lock_guard lock(m_logMutex);
        m_log.push_back(std::move(line));
    }
    std::vector<std::string> TakeLog() {
        const std::lock_guard lock(m_logMutex);
        return std::exchange(m_log, {});
    }
    /// Switched off where a test counts allocations or runs for long.
    std::atomic<bool> logging{true};

private:
    std::mutex m_logMutex;
    std::vector<std::string> m_log;
};

template <class... Values>
std::string Line(const char* format, Values... values) {
    char text[128];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

class FakeFireWireDevice final : public FireWireDevice {
public:
    FakeFireWireDevice(std::shared_ptr<FakeWorld> world, std::uint32_t number)
        : m_world(std::move(world)), m_number(number) {
        ++m_world->livingDevices;
    }
    ~FakeFireWireDevice() override { --m_world->livingDevices; }

    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        *info = m_world->configInfo;
        return m_world->Answer();
    }
    std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) override {
        *high = 0xAABB0000;
        *low = m_number;
        return m_world->Answer();
    }
    std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) override {
        *node = static_cast<std::uint16_t>(m_number);
        *busNumber = 7;
        return m_world->Answer();
    }
    std::uint32_t ReadQuadlet(std::uint64_t offset, std::uint32_t* value) override {
        m_world->Log(Line("ReadQuadlet %llx", static_cast<unsigned long long>(offset)));
        *value = 0xC0DE0000 | m_number;
        return m_world->Answer();
    }
    std::uint32_t WriteQuadlet(std::uint64_t offset, std::uint32_t value) override {
        m_world->Log(Line("WriteQuadlet %llx %x", static_cast<unsigned long long>(offset), value));
        return m_world->Answer();
    }
    std::uint32_t ReadPhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                          std::uint32_t* value) override {
        m_world->Log(Line("ReadPhy %u %u %u", page, port, address));
        *value = 0x5A;
        return m_world->Answer();
    }
    std::uint32_t WritePhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                           std::uint32_t value) override {
        m_world->Log(Line("WritePhy %u %u %u %x", page, port, address, value));
        return m_world->Answer();
    }
    std::uint32_t FireBusReset() override {
        m_world->Log("FireBusReset");
        return m_world->Answer();
    }
    std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                             std::uint32_t* generation) override {
        *packets = m_world->selfIds;
        *busKey = 0x1234567890;
        *generation = 3;
        return m_world->Answer();
    }
    std::uint32_t GetNodeSerialNumbers(std::vector<std::uint32_t>* serialNumbers) override {
        *serialNumbers = m_world->nodeSerialNumbers;
        return m_world->Answer();
    }

private:
    const std::shared_ptr<FakeWorld> m_world;
    const std::uint32_t m_number;
};

class FakeUsbDevice final : public UsbDevice {
public:
    FakeUsbDevice(std::shared_ptr<FakeWorld> world, std::uint32_t number)
        : m_world(std::move(world)), m_number(number) {
        ++m_world->livingDevices;
    }
    ~FakeUsbDevice() override { --m_world->livingDevices; }

    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        *info = m_world->configInfo;
        return m_world->Answer();
    }
    std::uint32_t GetSerialText(std::string* text) override {
        *text = m_world->serialText;
        return m_world->Answer();
    }
    std::uint32_t GetSpeed(std::uint32_t* megabits) override {
        *megabits = 5000 + m_number;
        return m_world->Answer();
    }
    std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t* value) override {
        m_world->Log(Line("ReadRegister %llx", static_cast<unsigned long long>(address)));
        *value = 0xDADA0000 | m_number;
        return m_world->Answer();
    }
    std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t value) override {
        m_world->Log(Line("WriteRegister %llx %x", static_cast<unsigned long long>(address), value));
        return m_world->Answer();
    }
    std::uint32_t FireBusReset() override {
        m_world->Log("FireBusReset");
        return m_world->Answer();
    }
    std::uint32_t GetLinkInfo(std::uint32_t* link) override {
        *link = 0x01F40203;
        return m_world->Answer();
    }
    std::uint32_t GetPortStatus(std::uint32_t* status) override {
        *status = 0x00010203;
        return m_world->Answer();
    }
    std::uint32_t GetTree(std::vector<UsbSelfId>* records, std::uint32_t* deviceId, std::uint64_t* hostKey,
                          std::uint32_t* generation) override {
        *records = m_world->usbRecords;
        *deviceId = 9;
        *hostKey = 0xABCDEF0123;
        *generation = 4;
        return m_world->Answer();
    }

private:
    const std::shared_ptr<FakeWorld> m_world;
    const std::uint32_t m_number;
};

class FakeGigEDevice final : public GigEDevice {
public:
    FakeGigEDevice(std::shared_ptr<FakeWorld> world, std::uint32_t number)
        : m_world(std::move(world)), m_number(number) {
        ++m_world->livingDevices;
    }
    ~FakeGigEDevice() override { --m_world->livingDevices; }

    std::uint32_t GetRecord(GvcpDiscoveryRecord* record) override {
        *record = m_world->record;
        return m_world->Answer();
    }
    std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) override {
        m_world->Log(Line("ReadRegister %x", address));
        *value = 0xFEED0000 | m_number;
        return m_world->Answer();
    }
    std::uint32_t WriteRegister(std::uint32_t address, std::uint32_t value) override {
        m_world->Log(Line("WriteRegister %x %x", address, value));
        return m_world->Answer();
    }
    std::uint32_t IsInMonitorMode(bool* monitor) override {
        *monitor = m_number % 2 == 1;
        return m_world->Answer();
    }
    std::uint32_t GetLocalPort(std::uint32_t* port) override {
        *port = 40001;
        return m_world->Answer();
    }
    std::uint32_t GetLocalAddress(std::uint32_t* ipAddress) override {
        *ipAddress = 0x7F000001;
        return m_world->Answer();
    }

private:
    const std::shared_ptr<FakeWorld> m_world;
    const std::uint32_t m_number;
};

/// What the three fake buses have in common: they count themselves, and list devices numbered from 0.
template <class BusInterface>
class FakeBus : public BusInterface {
public:
    FakeBus(std::shared_ptr<FakeWorld> world, std::uint32_t startAnswer, Nimbrel2::Testing::ReportedBus& reported,
            BusEventSink& sink)
        : m_world(std::move(world)), m_startAnswer(startAnswer), m_reported(reported), m_sink(sink) {
        ++m_world->livingBuses;
    }
    ~FakeBus() override { --m_world->livingBuses; }

    std::uint32_t Start() override {
        if (m_startAnswer != HAL_OK) {
            return m_startAnswer;
        }
        ++m_world->startedBuses;
        m_reported.Connect(&m_sink);
        return HAL_OK;
    }
    void Stop() override {
        m_reported.Connect(nullptr);
        --m_world->startedBuses;
    }

protected:
    template <class FakeDevice, class Device>
    std::uint32_t List(const char* operation, int number, Listing<Device>* listing) {
        listing->state = m_reported.Look();
        return Append<FakeDevice>(operation, number, &listing->devices);
    }
    template <class FakeDevice, class Device>
    std::uint32_t Append(const char* operation, int number, std::vector<std::shared_ptr<Device>>* devices) {
        if (m_world->duringListing) {
            m_world->duringListing(operation);
        }
        for (int i = 0; i < number; ++i) {
            devices->push_back(std::make_shared<FakeDevice>(m_world, static_cast<std::uint32_t>(i)));
        }
        return m_world->Answer();
    }

    const std::shared_ptr<FakeWorld> m_world;

private:
    const std::uint32_t m_startAnswer;
    Nimbrel2::Testing::ReportedBus& m_reported;
    BusEventSink& m_sink;
};

class FakeFireWireBus final : public FakeBus<FireWireBus> {
public:
    FakeFireWireBus(const std::shared_ptr<FakeWorld>& world, BusEventSink& sink)
        : FakeBus(world, world->fireWireStart, world->fireWire, sink) {}
    std::uint32_t ListCameras(Listing<FireWireDevice>* cameras) override {
        return List<FakeFireWireDevice>("FireWire ListCameras", m_world->fireWireCameras, cameras);
    }
    std::uint32_t ListVirtualCameras(const std::vector<std::uint64_t>& taken,
                                     std::vector<std::shared_ptr<FireWireDevice>>* cameras) override {
        for (const std::uint64_t serial : taken) {
            m_world->Log(Line("taken %llu", static_cast<unsigned long long>(serial)));
        }
        return Append<FakeFireWireDevice>("FireWire ListVirtualCameras", m_world->virtualCameras, cameras);
    }
    std::uint32_t ListDevices(Listing<FireWireDevice>* devices) override {
        return List<FakeFireWireDevice>("FireWire ListDevices", m_world->fireWireDevices, devices);
    }
    std::uint32_t Diagnose(bool askNodes, FireWireDiagnosis* diagnosis) override {
        m_world->Log(Line("FireWire Diagnose %d", askNodes ? 1 : 0));
        const std::uint32_t status = m_world->Answer();
        if (status == HAL_OK) {
            *diagnosis = m_world->fireWireDiagnosis;
        }
        return status;
    }
};

class FakeUsbBus final : public FakeBus<UsbBus> {
public:
    FakeUsbBus(const std::shared_ptr<FakeWorld>& world, BusEventSink& sink)
        : FakeBus(world, world->usbStart, world->usb, sink) {}
    std::uint32_t ListCameras(Listing<UsbDevice>* cameras) override {
        return List<FakeUsbDevice>("USB ListCameras", m_world->usbCameras, cameras);
    }
    std::uint32_t Diagnose(UsbDiagnosis* diagnosis) override {
        m_world->Log("USB Diagnose");
        const std::uint32_t status = m_world->Answer();
        if (status == HAL_OK) {
            *diagnosis = m_world->usbDiagnosis;
        }
        return status;
    }
};

class FakeGigEBus final : public FakeBus<GigEBus> {
public:
    FakeGigEBus(const std::shared_ptr<FakeWorld>& world, BusEventSink& sink)
        : FakeBus(world, world->gigEStart, world->gigE, sink) {}
    std::uint32_t ListCameras(Listing<GigEDevice>* cameras) override {
        return List<FakeGigEDevice>("GigE ListCameras", m_world->gigECameras, cameras);
    }
    std::uint32_t Discover(const std::optional<GigECameraName>& until, GigEDiscovery* discovery) override {
        if (until) {
            m_world->Log(Line("Discover %x %llx", until->ip, static_cast<unsigned long long>(until->mac)));
        }
        *discovery = m_world->discovered;
        return m_world->Answer();
    }
    std::uint32_t ForceAddress(const GigEAddress& address, ForceIpResult* result) override {
        m_world->Log(Line("ForceAddress %llx %x %x %x", static_cast<unsigned long long>(address.mac), address.ip,
                          address.mask, address.gateway));
        *result = m_world->forced;
        return m_world->Answer();
    }
    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) override {
        m_world->Log(serialNumber ? Line("PlanAddresses %u", *serialNumber) : std::string("PlanAddresses"));
        *plans = m_world->plans;
        return m_world->Answer();
    }
    std::uint32_t ApplyAddresses(std::vector<AddressPlan>* plans) override {
        m_world->Log("ApplyAddresses " + std::to_string(plans->size()));
        return m_world->Answer();
    }
    std::uint32_t FindAddressHolder(std::uint32_t ip, AddressHolder* holder) override {
        m_world->Log(Line("FindAddressHolder %x", ip));
        *holder = m_world->holder;
        return m_world->Answer();
    }
    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis) override {
        m_world->Log(Line("Diagnose %d", askControl ? 1 : 0));
        *diagnosis = m_world->diagnosis;
        return m_world->Answer();
    }
    std::uint32_t GetSearchReport(GigESearchReport* report) override {
        m_world->Log("GetSearchReport");
        *report = m_world->report;
        return m_world->Answer();
    }
    std::uint32_t FindMutedCameras(GigEHearing* hearing) override {
        m_world->Log("FindMutedCameras");
        *hearing = m_world->hearing;
        return m_world->Answer();
    }
};

/// Makes the drivers of a session for that world.
inline DriverFactory FakeDrivers(std::shared_ptr<FakeWorld> world) {
    return [world = std::move(world)](const Options&, const BusEventSinks& sinks) {
        Drivers drivers;
        drivers.fireWire = std::make_unique<FakeFireWireBus>(world, sinks.fireWire);
        drivers.usb = std::make_unique<FakeUsbBus>(world, sinks.usb);
        drivers.gigE = std::make_unique<FakeGigEBus>(world, sinks.gigE);
        return drivers;
    };
}

}  // namespace Nimbrel2::Platform::Testing

#endif
