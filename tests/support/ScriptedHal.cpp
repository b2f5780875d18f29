// SPDX-License-Identifier: Apache-2.0
// The HAL_ functions of the tests. Any thread; State::mutex for what is recorded, held for no hook, gate or callback.
#include "tests/support/ScriptedHal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <type_traits>
#include <unordered_map>

#include "tests/support/AllocationFailure.h"

namespace Nimbrel2::Testing {

namespace {

struct Entry {
    ScriptedHal::DevicePointer device;
    std::uint32_t place = 0;  // in its listing
    const char* freeFunction = "";
    unsigned int timesFreed = 0;
    unsigned int operationsInFlight = 0;
};

struct Registration {
    HALInterfaceType bus = HAL_INTERFACE_1394;
    HALBusEventFunction function = nullptr;
    void* context = nullptr;
    bool live = true;
};

struct PlannedFailure {
    std::string function;  // empty: any
    std::uint64_t number;  // of the calls of that function, or of all; 0: every one
    std::uint32_t status;
    std::shared_ptr<Injection> injection;
};

struct PlannedGate {
    std::string function;
    std::uint64_t number;
    std::shared_ptr<Gate> gate;
};

bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

bool GivesBack(const std::string& function) {
    return Contains(function, "FreeCamera") || Contains(function, "FreeDevice") || Contains(function, "Deregister");
}

bool MayFailWithAny(const std::string& function) {
    return !GivesBack(function) && function != "HAL_InitLibrary" && function != "HAL_CleanupLibrary";
}

const char* FreeFunctionOf(DeviceKind kind) {
    switch (kind) {
        case DeviceKind::FireWireDevice:
            return "HAL_1394FreeDevice";
        case DeviceKind::UsbCamera:
            return "HAL_UsbFreeCamera";
        case DeviceKind::GigECamera:
            return "HAL_GigEFreeCamera";
        default:
            return "HAL_1394FreeCamera";
    }
}

std::uint64_t ToNumber(std::uint64_t value) { return value; }
template <class Number>
std::enable_if_t<std::is_integral_v<Number>, std::uint64_t> ToNumber(Number* value) {
    if constexpr (sizeof(Number) == 1) {
        return reinterpret_cast<std::uintptr_t>(value);  // a text, not a number
    } else {
        return value == nullptr ? 0 : *value;
    }
}
template <class Other>
std::enable_if_t<!std::is_integral_v<Other>, std::uint64_t> ToNumber(Other* value) {
    return reinterpret_cast<std::uintptr_t>(value);
}

}  // namespace

struct ScriptedHal::State {
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    HalHooks hooks;
    HalHooks defaults;
    std::map<DeviceKind, std::vector<DevicePointer>> listings;
    std::deque<Entry> entries;  // an entry is the address of its element: never moved, never used twice
    std::unordered_map<const void*, Entry*> entriesByAddress;
    std::deque<Registration> registrations;
    std::vector<HalCall> calls;
    std::size_t firstCall = 0;  // calls before it were cleared
    std::map<std::string, std::uint64_t> counts;
    std::uint64_t failableCalls = 0;
    std::vector<PlannedFailure> failures;
    std::vector<PlannedGate> gates;
    std::vector<DevicePointer> freed;
    std::vector<std::string> misuses;

    Entry* Find(const void* entry) {
        const auto found = entriesByAddress.find(entry);
        return found == entriesByAddress.end() ? nullptr : found->second;
    }

    template <class Function, class... Arguments>
    std::uint32_t Call(std::function<Function> HalHooks::*hook, const char* name, std::vector<std::uint64_t> numbers,
                       Arguments... arguments) {
        std::function<Function> function;
        std::vector<std::shared_ptr<Gate>> passed;
        std::shared_ptr<Injection> injection;
        std::uint32_t injected = 0;
        std::size_t index = 0;
        Entry* entry = nullptr;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            index = calls.size();
            calls.push_back({name, std::move(numbers), std::this_thread::get_id()});
            const std::uint64_t number = ++counts[name];
            const std::uint64_t anyNumber = MayFailWithAny(name) ? ++failableCalls : 0;
            for (const PlannedFailure& failure : failures) {
                const bool applies = failure.function.empty() ? anyNumber != 0 && anyNumber == failure.number
                                                              : failure.function == name &&
                                                                    (failure.number == 0 || failure.number == number);
                if (applies && !injection) {
                    injection = failure.injection;
                    injected = failure.status;
                }
            }
            for (const PlannedGate& gate : gates) {
                if (gate.function == name && (gate.number == 0 || gate.number == number)) {
                    passed.push_back(gate.gate);
                }
            }
            entry = GivesBack(name) ? nullptr : Find(calls[index].Entry());
            if (entry != nullptr) {
                ++entry->operationsInFlight;
            }
            function = hooks.*hook;
            changed.notify_all();
        }
        for (const auto& gate : passed) {
            gate->Pass();
        }
        std::uint32_t status = injected;
        if (injection) {
            injection->fired = true;
        }
        if (!injection || GivesBack(name)) {
            const std::uint32_t answered = function(arguments...);
            status = injection ? injected : answered;
        }
        const std::lock_guard<std::mutex> lock(mutex);
        if (entry != nullptr) {
            --entry->operationsInFlight;
        }
        calls[index].returned = true;
        calls[index].status = status;
        changed.notify_all();
        return status;
    }

    // ---- What plays the devices ------------------------------------------------------------------------------------

    std::uint32_t List(DeviceKind kind, void** array, std::uint64_t capacity, std::uint64_t* count) {
        const std::lock_guard<std::mutex> lock(mutex);
        const std::vector<DevicePointer>& devices = listings[kind];
        const std::uint64_t listed = std::min<std::uint64_t>(devices.size(), capacity);
        for (std::uint64_t i = 0; i < listed; ++i) {
            entries.push_back({devices[i], static_cast<std::uint32_t>(i), FreeFunctionOf(kind)});
            entriesByAddress[&entries.back()] = &entries.back();
            array[i] = &entries.back();
        }
        *count = listed;
        return HAL_OK;
    }

    std::uint32_t Free(const char* function, void* pointer) {
        const std::lock_guard<std::mutex> lock(mutex);
        Entry* entry = Find(pointer);
        if (entry == nullptr) {
            misuses.push_back(std::string(function) + " was given an unknown entry");
            return pointer == nullptr ? HAL_INVALID_ARGUMENT : HAL_GONE;
        }
        if (std::strcmp(entry->freeFunction, function) != 0) {
            misuses.push_back(std::string(function) + " was given an entry of " + entry->freeFunction);
        }
        if (entry->operationsInFlight != 0) {
            misuses.push_back(std::string(function) + " was called under an operation on the entry");
        }
        freed.push_back(entry->device);
        return ++entry->timesFreed == 1 ? HAL_OK : HAL_GONE;
    }

    template <class Operation>
    std::uint32_t OnEntry(const char* function, void* pointer, Operation operation) {
        const std::lock_guard<std::mutex> lock(mutex);
        Entry* entry = Find(pointer);
        if (entry == nullptr || entry->timesFreed != 0) {
            misuses.push_back(std::string(function) + " was called on an entry that is unknown or was given back");
            return HAL_GONE;
        }
        const auto planned = entry->device->statuses.find(function);
        if (planned != entry->device->statuses.end()) {
            return planned->second;
        }
        return operation(*entry->device, *entry);
    }

    static void PutText(const std::string& text, bool unterminated, char* buffer, std::uint32_t* size) {
        if (unterminated) {
            for (std::uint32_t i = 0; i < *size; ++i) {
                buffer[i] = i < text.size() ? text[i] : 'x';
            }
            return;
        }
        const auto length = std::min<std::size_t>(text.size(), *size - 1);
        std::memcpy(buffer, text.data(), length);
        buffer[length] = '\0';
        *size = static_cast<std::uint32_t>(length);
    }

    auto ConfigInfo(const char* function) {
        return [this, function](void* pointer, std::uint32_t* first, std::uint32_t* second, std::uint32_t* serialNumber,
                                std::uint32_t* fourth, std::uint32_t* fifth, char* vendor, char* model,
                                std::uint32_t* vendorSize, std::uint32_t* modelSize) {
            return OnEntry(function, pointer, [&](const ScriptedDevice& device, const Entry&) -> std::uint32_t {
                *first = device.config[0];
                *second = device.config[1];
                *serialNumber = device.serialNumber;
                *fourth = device.config[2];
                *fifth = device.config[3];
                PutText(device.vendor, device.unterminatedTexts, vendor, vendorSize);
                PutText(device.model, device.unterminatedTexts, model, modelSize);
                return HAL_OK;
            });
        };
    }

    static std::uint32_t ReadFrom(const std::map<std::uint64_t, std::uint32_t>& registers, std::uint64_t address,
                                  std::uint32_t* value) {
        const auto found = registers.find(address);
        if (found == registers.end()) {
            return HAL_NO_SUCH_REGISTER;
        }
        *value = found->second;
        return HAL_OK;
    }

    auto ReadWide(const char* function) {
        return [this, function](void* pointer, std::uint64_t address, std::uint32_t, std::uint32_t* value) {
            return OnEntry(function, pointer, [&](const ScriptedDevice& device, const Entry&) {
                return ReadFrom(device.registers, address, value);
            });
        };
    }

    auto WriteWide(const char* function) {
        return
            [this, function](void* pointer, std::uint64_t address, std::uint32_t, std::uint32_t value, std::uint32_t) {
                return OnEntry(function, pointer, [&](ScriptedDevice& device, const Entry&) -> std::uint32_t {
                    device.registers[address] = value;
                    return HAL_OK;
                });
            };
    }

    template <class Number>
    auto Tell(const char* function, Number ScriptedDevice::*field) {
        return [this, function, field](void* pointer, Number* value) {
            return OnEntry(function, pointer, [&](const ScriptedDevice& device, const Entry&) -> std::uint32_t {
                *value = device.*field;
                return HAL_OK;
            });
        };
    }

    auto DoNothing(const char* function) {
        return [this, function](void* pointer) {
            return OnEntry(function, pointer,
                           [](const ScriptedDevice&, const Entry&) -> std::uint32_t { return HAL_OK; });
        };
    }

    template <class Record>
    static std::uint32_t PutReading(const std::vector<Record>& reading, Record* records, std::uint64_t* count) {
        const std::uint64_t capacity = *count;
        *count = reading.size();
        if (capacity < reading.size()) {
            return HAL_INVALID_ARGUMENT;
        }
        std::copy(reading.begin(), reading.end(), records);
        return HAL_OK;
    }

    auto Register(HALInterfaceType bus) {
        return [this, bus](void** registration, HALBusEventFunction function, void* context) -> std::uint32_t {
            const std::lock_guard<std::mutex> lock(mutex);
            registrations.push_back({bus, function, context});
            *registration = &registrations.back();
            return HAL_OK;
        };
    }

    auto Deregister(HALInterfaceType bus) {
        return [this, bus](void* registration) -> std::uint32_t {
            const std::lock_guard<std::mutex> lock(mutex);
            if (registration == nullptr) {
                return HAL_INVALID_ARGUMENT;
            }
            for (Registration& candidate : registrations) {
                if (&candidate == registration && candidate.bus == bus && candidate.live) {
                    candidate.live = false;
                    return HAL_OK;
                }
            }
            misuses.push_back("a registration was given back twice, or was never made");
            return HAL_GONE;
        };
    }

    void MakeDefaults();
};

void ScriptedHal::State::MakeDefaults() {
    HalHooks& h = defaults;
    h.HAL_InitLibrary = [] { return static_cast<std::uint32_t>(HAL_OK); };
    h.HAL_CleanupLibrary = h.HAL_InitLibrary;
    const auto list = [this](DeviceKind kind) {
        return [this, kind](void** array, std::uint64_t* count) { return List(kind, array, *count, count); };
    };
    h.HAL_1394GetCameras = list(DeviceKind::FireWireCamera);
    h.HAL_1394GetVirtualCameras = [this](void** array, const std::uint64_t*, std::uint64_t* count) {
        return List(DeviceKind::VirtualCamera, array, 256, count);
    };
    h.HAL_1394GetDevices = list(DeviceKind::FireWireDevice);
    h.HAL_UsbGetCameras = list(DeviceKind::UsbCamera);
    h.HAL_GigEGetCameras = list(DeviceKind::GigECamera);
    h.HAL_1394FreeCamera = [this](void* entry) { return Free("HAL_1394FreeCamera", entry); };
    h.HAL_1394FreeDevice = [this](void* entry) { return Free("HAL_1394FreeDevice", entry); };
    h.HAL_UsbFreeCamera = [this](void* entry) { return Free("HAL_UsbFreeCamera", entry); };
    h.HAL_GigEFreeCamera = [this](void* entry) { return Free("HAL_GigEFreeCamera", entry); };

    h.HAL_1394RegisterBusEvents = Register(HAL_INTERFACE_1394);
    h.HAL_UsbRegisterBusEvents = Register(HAL_INTERFACE_USB);
    h.HAL_GigERegisterBusEvents = Register(HAL_INTERFACE_GIGE);
    h.HAL_1394DeregisterBusEvents = Deregister(HAL_INTERFACE_1394);
    h.HAL_UsbDeregisterBusEvents = Deregister(HAL_INTERFACE_USB);
    h.HAL_GigEDeregisterBusEvents = Deregister(HAL_INTERFACE_GIGE);

    h.HAL_GvcpDiscovery = [this](GvcpDiscoveryRecord* records, std::uint32_t* count) -> std::uint32_t {
        const std::lock_guard<std::mutex> lock(mutex);
        const std::vector<DevicePointer>& cameras = listings[DeviceKind::GigECamera];
        const std::uint32_t capacity = *count;
        *count = static_cast<std::uint32_t>(cameras.size());
        if (capacity < cameras.size()) {
            return HAL_ARRAY_TOO_SMALL;
        }
        for (std::size_t i = 0; i < cameras.size(); ++i) {
            records[i] = cameras[i]->record;
        }
        return HAL_OK;
    };
    h.HAL_GvcpForceIp = [](auto...) { return static_cast<std::uint32_t>(HAL_OK); };
    h.HAL_GvcpForceIpAuto = h.HAL_InitLibrary;
    h.HAL_GvcpAutoForceIpToCamera = [](std::uint32_t) { return static_cast<std::uint32_t>(HAL_OK); };

    h.HAL_1394GetConfigInfo = ConfigInfo("HAL_1394GetConfigInfo");
    h.HAL_1394GetDeviceInfo = [this](void* pointer, std::uint32_t* info1, std::uint32_t* info2, std::uint32_t* info3) {
        return OnEntry("HAL_1394GetDeviceInfo", pointer,
                       [&](const ScriptedDevice& device, const Entry& entry) -> std::uint32_t {
                           *info1 = device.info[0];
                           *info2 = device.info[1];
                           *info3 = device.countInfo3FromListing ? 0xFFFFFFFF - entry.place : device.info[2];
                           return HAL_OK;
                       });
    };
    h.HAL_1394GetNode = [this](void* pointer, std::uint16_t* node, std::uint16_t* busNumber) {
        return OnEntry("HAL_1394GetNode", pointer, [&](const ScriptedDevice& device, const Entry&) -> std::uint32_t {
            *node = device.node;
            *busNumber = device.busNumber;
            return HAL_OK;
        });
    };
    h.HAL_1394ReadRegister = ReadWide("HAL_1394ReadRegister");
    h.HAL_1394WriteRegister = WriteWide("HAL_1394WriteRegister");
    const auto phyKey = [](std::uint32_t page, std::uint32_t port, std::uint32_t address) {
        return static_cast<std::uint64_t>(page) << 32 | static_cast<std::uint64_t>(port) << 16 | address;
    };
    h.HAL_1394ReadPhyRegister = [this, phyKey](void* pointer, std::uint32_t page, std::uint32_t port,
                                               std::uint32_t address, std::uint32_t* value) {
        return OnEntry("HAL_1394ReadPhyRegister", pointer, [&](const ScriptedDevice& device, const Entry&) {
            return ReadFrom(device.phyRegisters, phyKey(page, port, address), value);
        });
    };
    h.HAL_1394WritePhyRegister = [this, phyKey](void* pointer, std::uint32_t page, std::uint32_t port,
                                                std::uint32_t address, std::uint32_t value) {
        return OnEntry("HAL_1394WritePhyRegister", pointer, [&](ScriptedDevice& device, const Entry&) -> std::uint32_t {
            device.phyRegisters[phyKey(page, port, address)] = value;
            return HAL_OK;
        });
    };
    h.HAL_1394FireBusReset = DoNothing("HAL_1394FireBusReset");
    h.HAL_1394GetSelfIds = [this](void* pointer, SelfIdPacket_t* packets, std::uint64_t* count, std::uint64_t* busKey,
                                  std::uint32_t* generation) {
        return OnEntry("HAL_1394GetSelfIds", pointer, [&](const ScriptedDevice& device, const Entry&) {
            *busKey = device.busKey;
            *generation = device.generation;
            return PutReading(device.selfIds, packets, count);
        });
    };
    h.HAL_1394GetNodeSerialNumbers = [this](void* pointer, std::uint32_t* serialNumbers, std::uint64_t count) {
        return OnEntry("HAL_1394GetNodeSerialNumbers", pointer,
                       [&](const ScriptedDevice& device, const Entry&) -> std::uint32_t {
                           const std::size_t told = std::min<std::size_t>(count, device.nodeSerialNumbers.size());
                           std::copy_n(device.nodeSerialNumbers.begin(), told, serialNumbers);
                           return HAL_OK;
                       });
    };

    h.HAL_UsbGetConfigInfo = ConfigInfo("HAL_UsbGetConfigInfo");
    h.HAL_UsbGetSerialText = [this](void* pointer, char* text, std::uint32_t* size) {
        return OnEntry("HAL_UsbGetSerialText", pointer,
                       [&](const ScriptedDevice& device, const Entry&) -> std::uint32_t {
                           PutText(device.serialText, device.unterminatedTexts, text, size);
                           return HAL_OK;
                       });
    };
    h.HAL_UsbGetSpeed = Tell("HAL_UsbGetSpeed", &ScriptedDevice::speed);
    h.HAL_UsbReadRegister = ReadWide("HAL_UsbReadRegister");
    h.HAL_UsbWriteRegister = WriteWide("HAL_UsbWriteRegister");
    h.HAL_UsbFireBusReset = DoNothing("HAL_UsbFireBusReset");
    h.HAL_UsbGetLinkInfo = Tell("HAL_UsbGetLinkInfo", &ScriptedDevice::linkInfo);
    h.HAL_UsbGetPortStatus = Tell("HAL_UsbGetPortStatus", &ScriptedDevice::portStatus);
    h.HAL_UsbGetSelfIds = [this](void* pointer, UsbSelfId* records, std::uint64_t* count, std::uint32_t* deviceId,
                                 std::uint64_t* hostKey, std::uint32_t* generation) {
        return OnEntry("HAL_UsbGetSelfIds", pointer, [&](const ScriptedDevice& device, const Entry&) {
            *deviceId = device.deviceId;
            *hostKey = device.hostKey;
            *generation = device.generation;
            return PutReading(device.tree, records, count);
        });
    };

    h.HAL_GigEGetConfigInfo = ConfigInfo("HAL_GigEGetConfigInfo");
    h.HAL_GigEGetDiscoveryRecord = Tell("HAL_GigEGetDiscoveryRecord", &ScriptedDevice::record);
    h.HAL_GigEGetCameraIpAddress = Tell("HAL_GigEGetCameraIpAddress", &ScriptedDevice::ipAddress);
    h.HAL_GigEReadRegister = [this](void* pointer, std::uint32_t address, std::uint32_t* value) {
        return OnEntry("HAL_GigEReadRegister", pointer, [&](const ScriptedDevice& device, const Entry&) {
            return ReadFrom(device.registers, address, value);
        });
    };
    h.HAL_GigEWriteRegister = [this](void* pointer, std::uint32_t address, std::uint32_t value) {
        return OnEntry("HAL_GigEWriteRegister", pointer, [&](ScriptedDevice& device, const Entry&) -> std::uint32_t {
            device.registers[address] = value;
            return HAL_OK;
        });
    };
    h.HAL_GigEIsInMonitorMode = Tell("HAL_GigEIsInMonitorMode", &ScriptedDevice::monitor);
    h.HAL_GigEGetLocalApplicationPort = Tell("HAL_GigEGetLocalApplicationPort", &ScriptedDevice::localPort);
    h.HAL_GigEGetLocalApplicationIpAddress =
        Tell("HAL_GigEGetLocalApplicationIpAddress", &ScriptedDevice::localIpAddress);
    hooks = defaults;
}

namespace {

// Never destroyed: a thread of the code under test may outlive the test that started it.
struct Installed {
    std::mutex mutex;
    std::shared_ptr<ScriptedHal::State> state;
};

Installed& GetInstalled() {
    static Installed& installed = *new Installed;
    return installed;
}

template <class Function, class... Arguments>
std::uint32_t Dispatch(std::function<Function> HalHooks::*hook, const char* name, std::vector<std::uint64_t> numbers,
                       Arguments... arguments) {
    std::shared_ptr<ScriptedHal::State> state;
    {
        const std::lock_guard<std::mutex> lock(GetInstalled().mutex);
        state = GetInstalled().state;
    }
    return state ? state->Call(hook, name, std::move(numbers), arguments...) : static_cast<std::uint32_t>(HAL_CLOSED);
}

template <class Function, class... Arguments>
std::uint32_t Dispatch(std::function<Function> HalHooks::*hook, const char* name, Arguments... arguments) {
    const AllocationFailure::Pause pause;
    return Dispatch(hook, name, std::vector<std::uint64_t>{ToNumber(arguments)...}, arguments...);
}

}  // namespace

// ---- The test's side -----------------------------------------------------------------------------------------------

ScriptedHal::ScriptedHal() : m_state(std::make_shared<State>()) {
    m_state->MakeDefaults();
    const std::lock_guard<std::mutex> lock(GetInstalled().mutex);
    GetInstalled().state = m_state;
}

ScriptedHal::~ScriptedHal() {
    {
        const std::lock_guard<std::mutex> lock(GetInstalled().mutex);
        GetInstalled().state.reset();
    }
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const PlannedGate& gate : m_state->gates) {
        gate.gate->Open();
    }
}

ScriptedHal::DevicePointer ScriptedHal::Add(DeviceKind kind, std::uint32_t serialNumber) {
    auto device = std::make_shared<ScriptedDevice>();
    device->kind = kind;
    device->serialNumber = serialNumber;
    Attach(device);
    return device;
}

ScriptedHal::DevicePointer ScriptedHal::AddFireWireCamera(std::uint32_t serialNumber, std::uint16_t node,
                                                          std::uint16_t busNumber) {
    const DevicePointer camera = Add(DeviceKind::FireWireCamera, serialNumber);
    Change([&] {
        camera->node = node;
        camera->busNumber = busNumber;
        camera->registers[0xF0000410] = serialNumber;
    });
    return camera;
}

ScriptedHal::DevicePointer ScriptedHal::AddFireWireDevice(std::uint32_t euiHigh, std::uint32_t euiLow) {
    const DevicePointer device = Add(DeviceKind::FireWireDevice, euiLow);
    Change([&] {
        device->info[0] = euiLow;
        device->info[1] = euiHigh;
    });
    return device;
}

ScriptedHal::DevicePointer ScriptedHal::AddVirtualCamera(std::uint32_t serialNumber) {
    return Add(DeviceKind::VirtualCamera, serialNumber);
}

ScriptedHal::DevicePointer ScriptedHal::AddUsbCamera(std::uint32_t serialNumber, std::uint32_t speed) {
    const DevicePointer camera = Add(DeviceKind::UsbCamera, serialNumber);
    Change([&] {
        camera->speed = speed;
        camera->config[2] = speed;
        camera->serialText = std::to_string(serialNumber);
    });
    return camera;
}

ScriptedHal::DevicePointer ScriptedHal::AddGigECamera(std::uint32_t serialNumber, std::uint32_t ipAddress) {
    const DevicePointer camera = Add(DeviceKind::GigECamera, serialNumber);
    Change([&] {
        camera->ipAddress = ipAddress;
        camera->registers[0x24] = ipAddress;
        camera->record.ipAddress = ipAddress;
    });
    return camera;
}

void ScriptedHal::Attach(const DevicePointer& device, std::size_t index) {
    Change([&] {
        std::vector<DevicePointer>& listing = m_state->listings[device->kind];
        listing.insert(listing.begin() + static_cast<std::ptrdiff_t>(std::min(index, listing.size())), device);
    });
}

void ScriptedHal::Detach(const DevicePointer& device) {
    Change([&] {
        std::vector<DevicePointer>& listing = m_state->listings[device->kind];
        listing.erase(std::remove(listing.begin(), listing.end(), device), listing.end());
    });
}

void ScriptedHal::DetachAll() {
    Change([&] { m_state->listings.clear(); });
}

void ScriptedHal::Change(const std::function<void()>& change) {
    const AllocationFailure::Pause pause;
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    change();
}

HalHooks& ScriptedHal::MutableHooks() { return m_state->hooks; }

const HalHooks& ScriptedHal::Defaults() const { return m_state->defaults; }

std::shared_ptr<Injection> ScriptedHal::Fail(const std::string& function, unsigned int nth, std::uint32_t status) {
    auto injection = std::make_shared<Injection>();
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->failures.push_back({function, nth == 0 ? 0 : m_state->counts[function] + nth, status, injection});
    return injection;
}

std::shared_ptr<Injection> ScriptedHal::FailAny(unsigned int nth, std::uint32_t status) {
    auto injection = std::make_shared<Injection>();
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->failures.push_back({"", m_state->failableCalls + nth, status, injection});
    return injection;
}

void ScriptedHal::FailNothing() {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->failures.clear();
}

std::shared_ptr<Gate> ScriptedHal::Block(const std::string& function, unsigned int nth) {
    auto gate = std::make_shared<Gate>();
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->gates.push_back({function, nth == 0 ? 0 : m_state->counts[function] + nth, gate});
    return gate;
}

std::vector<HalCall> ScriptedHal::Calls() const {
    const AllocationFailure::Pause pause;
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return {m_state->calls.begin() + static_cast<std::ptrdiff_t>(m_state->firstCall), m_state->calls.end()};
}

std::vector<HalCall> ScriptedHal::Calls(const std::string& function) const {
    std::vector<HalCall> calls = Calls();
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [&function](const HalCall& call) { return call.function != function; }),
                calls.end());
    return calls;
}

std::vector<std::string> ScriptedHal::CallNames() const {
    std::vector<std::string> names;
    for (const HalCall& call : Calls()) {
        names.push_back(call.function);
    }
    return names;
}

std::size_t ScriptedHal::Count(const std::string& function) const { return Calls(function).size(); }

bool ScriptedHal::WaitForCalls(const std::string& function, std::size_t times,
                               std::chrono::milliseconds timeout) const {
    const AllocationFailure::Pause pause;
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_for(lock, timeout, [&] {
        std::size_t found = 0;
        for (std::size_t i = m_state->firstCall; i < m_state->calls.size(); ++i) {
            found += m_state->calls[i].function == function ? 1 : 0;
        }
        return found >= times;
    });
}

void ScriptedHal::ClearCalls() {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->firstCall = m_state->calls.size();  // calls in flight still write to theirs
}

ScriptedHal::DevicePointer ScriptedHal::DeviceOf(void* entry) const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    const Entry* found = m_state->Find(entry);
    return found == nullptr ? DevicePointer() : found->device;
}

std::vector<void*> ScriptedHal::EntriesOf(const DevicePointer& device) const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    std::vector<void*> found;
    for (Entry& entry : m_state->entries) {
        if (entry.device == device) {
            found.push_back(&entry);
        }
    }
    return found;
}

unsigned int ScriptedHal::TimesFreed(void* entry) const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    const Entry* found = m_state->Find(entry);
    return found == nullptr ? 0 : found->timesFreed;
}

std::vector<ScriptedHal::DevicePointer> ScriptedHal::FreedDevices() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->freed;
}

std::size_t ScriptedHal::EntriesOutstanding() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return static_cast<std::size_t>(std::count_if(m_state->entries.begin(), m_state->entries.end(),
                                                  [](const Entry& entry) { return entry.timesFreed == 0; }));
}

void ScriptedHal::ExpectAllEntriesGivenBackOnce(const std::vector<DevicePointer>& leftToTheHal) const {
    ExpectNoMisuse();
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const Entry& entry : m_state->entries) {
        const bool left = std::find(leftToTheHal.begin(), leftToTheHal.end(), entry.device) != leftToTheHal.end();
        EXPECT_EQ(left ? 0U : 1U, entry.timesFreed)
            << "times that the entry at place " << entry.place << " of its listing was given back to "
            << entry.freeFunction << " (serial number " << entry.device->serialNumber << ")";
    }
}

void ScriptedHal::ExpectNoMisuse() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const std::string& misuse : m_state->misuses) {
        ADD_FAILURE() << misuse;
    }
    for (const Entry& entry : m_state->entries) {
        EXPECT_LE(entry.timesFreed, 1U) << "times that an entry was given back to " << entry.freeFunction;
    }
}

unsigned int ScriptedHal::Raise(HALBusEvent event, HALInterfaceType bus, unsigned int first, unsigned int second,
                                unsigned int third) const {
    std::vector<Registration> targets;
    {
        const std::lock_guard<std::mutex> lock(m_state->mutex);
        std::copy_if(m_state->registrations.begin(), m_state->registrations.end(), std::back_inserter(targets),
                     [bus](const Registration& registration) { return registration.live && registration.bus == bus; });
    }
    for (const Registration& target : targets) {
        target.function(event, target.context, bus, first, second, third);
    }
    return static_cast<unsigned int>(targets.size());
}

std::size_t ScriptedHal::RegistrationsOutstanding() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return static_cast<std::size_t>(std::count_if(m_state->registrations.begin(), m_state->registrations.end(),
                                                  [](const Registration& registration) { return registration.live; }));
}

void* ScriptedHal::RegisteredContext(HALInterfaceType bus) const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    const auto found = std::find_if(m_state->registrations.rbegin(), m_state->registrations.rend(),
                                    [bus](const Registration& registration) { return registration.bus == bus; });
    return found == m_state->registrations.rend() ? nullptr : found->context;
}

}  // namespace Nimbrel2::Testing

// ---- The HAL -------------------------------------------------------------------------------------------------------

using Nimbrel2::Testing::Dispatch;
using Nimbrel2::Testing::HalHooks;

#define NIMBREL2_DISPATCH(name, ...) return Dispatch(&HalHooks::name, #name __VA_OPT__(, ) __VA_ARGS__)

uint32_t HAL_InitLibrary(void) { NIMBREL2_DISPATCH(HAL_InitLibrary); }
uint32_t HAL_CleanupLibrary(void) { NIMBREL2_DISPATCH(HAL_CleanupLibrary); }
uint32_t HAL_1394GetCameras(void** entries, uint64_t* count) { NIMBREL2_DISPATCH(HAL_1394GetCameras, entries, count); }
uint32_t HAL_1394GetVirtualCameras(void** entries, const uint64_t* serialNumbers, uint64_t* count) {
    NIMBREL2_DISPATCH(HAL_1394GetVirtualCameras, entries, serialNumbers, count);
}
uint32_t HAL_1394GetDevices(void** entries, uint64_t* count) { NIMBREL2_DISPATCH(HAL_1394GetDevices, entries, count); }
uint32_t HAL_UsbGetCameras(void** entries, uint64_t* count) { NIMBREL2_DISPATCH(HAL_UsbGetCameras, entries, count); }
uint32_t HAL_GigEGetCameras(void** entries, uint64_t* count) { NIMBREL2_DISPATCH(HAL_GigEGetCameras, entries, count); }
uint32_t HAL_1394FreeCamera(void* entry) { NIMBREL2_DISPATCH(HAL_1394FreeCamera, entry); }
uint32_t HAL_1394FreeDevice(void* entry) { NIMBREL2_DISPATCH(HAL_1394FreeDevice, entry); }
uint32_t HAL_UsbFreeCamera(void* entry) { NIMBREL2_DISPATCH(HAL_UsbFreeCamera, entry); }
uint32_t HAL_GigEFreeCamera(void* entry) { NIMBREL2_DISPATCH(HAL_GigEFreeCamera, entry); }
uint32_t HAL_GigEGetCameraIpAddress(void* entry, uint32_t* ipAddress) {
    NIMBREL2_DISPATCH(HAL_GigEGetCameraIpAddress, entry, ipAddress);
}
uint32_t HAL_1394RegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    NIMBREL2_DISPATCH(HAL_1394RegisterBusEvents, registration, function, context);
}
uint32_t HAL_UsbRegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    NIMBREL2_DISPATCH(HAL_UsbRegisterBusEvents, registration, function, context);
}
uint32_t HAL_GigERegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    NIMBREL2_DISPATCH(HAL_GigERegisterBusEvents, registration, function, context);
}
uint32_t HAL_1394DeregisterBusEvents(void* registration) {
    NIMBREL2_DISPATCH(HAL_1394DeregisterBusEvents, registration);
}
uint32_t HAL_UsbDeregisterBusEvents(void* registration) { NIMBREL2_DISPATCH(HAL_UsbDeregisterBusEvents, registration); }
uint32_t HAL_GigEDeregisterBusEvents(void* registration) {
    NIMBREL2_DISPATCH(HAL_GigEDeregisterBusEvents, registration);
}
uint32_t HAL_GvcpDiscovery(GvcpDiscoveryRecord* records, uint32_t* count) {
    NIMBREL2_DISPATCH(HAL_GvcpDiscovery, records, count);
}
uint32_t HAL_GvcpForceIp(uint32_t macHigh, uint32_t macLow, uint32_t ipAddress, uint32_t subnetMask, uint32_t gateway) {
    NIMBREL2_DISPATCH(HAL_GvcpForceIp, macHigh, macLow, ipAddress, subnetMask, gateway);
}
uint32_t HAL_GvcpForceIpAuto(void) { NIMBREL2_DISPATCH(HAL_GvcpForceIpAuto); }
uint32_t HAL_GvcpAutoForceIpToCamera(uint32_t serialNumber) {
    NIMBREL2_DISPATCH(HAL_GvcpAutoForceIpToCamera, serialNumber);
}
uint32_t HAL_1394GetConfigInfo(void* entry, uint32_t* first, uint32_t* nodeAddress, uint32_t* serialNumber,
                               uint32_t* card, uint32_t* unitVersion, char* vendor, char* model, uint32_t* vendorSize,
                               uint32_t* modelSize) {
    NIMBREL2_DISPATCH(HAL_1394GetConfigInfo, entry, first, nodeAddress, serialNumber, card, unitVersion, vendor, model,
                      vendorSize, modelSize);
}
uint32_t HAL_1394GetDeviceInfo(void* entry, uint32_t* info1, uint32_t* info2, uint32_t* info3) {
    NIMBREL2_DISPATCH(HAL_1394GetDeviceInfo, entry, info1, info2, info3);
}
uint32_t HAL_1394GetNode(void* entry, uint16_t* node, uint16_t* busNumber) {
    NIMBREL2_DISPATCH(HAL_1394GetNode, entry, node, busNumber);
}
uint32_t HAL_1394ReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value) {
    NIMBREL2_DISPATCH(HAL_1394ReadRegister, entry, address, selector, value);
}
uint32_t HAL_1394WriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value, uint32_t flags) {
    NIMBREL2_DISPATCH(HAL_1394WriteRegister, entry, address, selector, value, flags);
}
uint32_t HAL_1394ReadPhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address, uint32_t* value) {
    NIMBREL2_DISPATCH(HAL_1394ReadPhyRegister, entry, page, port, address, value);
}
uint32_t HAL_1394WritePhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address, uint32_t value) {
    NIMBREL2_DISPATCH(HAL_1394WritePhyRegister, entry, page, port, address, value);
}
uint32_t HAL_1394FireBusReset(void* entry) { NIMBREL2_DISPATCH(HAL_1394FireBusReset, entry); }
uint32_t HAL_1394GetSelfIds(void* entry, SelfIdPacket_t* packets, uint64_t* count, uint64_t* busKey,
                            uint32_t* generation) {
    NIMBREL2_DISPATCH(HAL_1394GetSelfIds, entry, packets, count, busKey, generation);
}
uint32_t HAL_1394GetNodeSerialNumbers(void* entry, uint32_t* serialNumbers, uint64_t count) {
    // The array may be empty: its address stands for it, not its first element.
    const Nimbrel2::Testing::AllocationFailure::Pause pause;
    return Dispatch(&HalHooks::HAL_1394GetNodeSerialNumbers, "HAL_1394GetNodeSerialNumbers",
                    std::vector<std::uint64_t>{reinterpret_cast<std::uintptr_t>(entry),
                                               reinterpret_cast<std::uintptr_t>(serialNumbers), count},
                    entry, serialNumbers, count);
}
uint32_t HAL_UsbGetConfigInfo(void* entry, uint32_t* vidPid, uint32_t* busAndAddress, uint32_t* serialNumber,
                              uint32_t* speed, uint32_t* version, char* vendor, char* model, uint32_t* vendorSize,
                              uint32_t* modelSize) {
    NIMBREL2_DISPATCH(HAL_UsbGetConfigInfo, entry, vidPid, busAndAddress, serialNumber, speed, version, vendor, model,
                      vendorSize, modelSize);
}
uint32_t HAL_UsbGetSerialText(void* entry, char* text, uint32_t* size) {
    NIMBREL2_DISPATCH(HAL_UsbGetSerialText, entry, text, size);
}
uint32_t HAL_UsbGetSpeed(void* entry, uint32_t* speed) { NIMBREL2_DISPATCH(HAL_UsbGetSpeed, entry, speed); }
uint32_t HAL_UsbReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value) {
    NIMBREL2_DISPATCH(HAL_UsbReadRegister, entry, address, selector, value);
}
uint32_t HAL_UsbWriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value, uint32_t flags) {
    NIMBREL2_DISPATCH(HAL_UsbWriteRegister, entry, address, selector, value, flags);
}
uint32_t HAL_UsbFireBusReset(void* entry) { NIMBREL2_DISPATCH(HAL_UsbFireBusReset, entry); }
uint32_t HAL_UsbGetLinkInfo(void* entry, uint32_t* link) { NIMBREL2_DISPATCH(HAL_UsbGetLinkInfo, entry, link); }
uint32_t HAL_UsbGetPortStatus(void* entry, uint32_t* status) { NIMBREL2_DISPATCH(HAL_UsbGetPortStatus, entry, status); }
uint32_t HAL_UsbGetSelfIds(void* entry, UsbSelfId* records, uint64_t* count, uint32_t* deviceId, uint64_t* hostKey,
                           uint32_t* generation) {
    NIMBREL2_DISPATCH(HAL_UsbGetSelfIds, entry, records, count, deviceId, hostKey, generation);
}
uint32_t HAL_GigEGetConfigInfo(void* entry, uint32_t* macHigh, uint32_t* macLow, uint32_t* serialNumber,
                               uint32_t* version, uint32_t* deviceMode, char* vendor, char* model, uint32_t* vendorSize,
                               uint32_t* modelSize) {
    NIMBREL2_DISPATCH(HAL_GigEGetConfigInfo, entry, macHigh, macLow, serialNumber, version, deviceMode, vendor, model,
                      vendorSize, modelSize);
}
uint32_t HAL_GigEGetDiscoveryRecord(void* entry, GvcpDiscoveryRecord* record) {
    NIMBREL2_DISPATCH(HAL_GigEGetDiscoveryRecord, entry, record);
}
uint32_t HAL_GigEReadRegister(void* entry, uint32_t address, uint32_t* value) {
    NIMBREL2_DISPATCH(HAL_GigEReadRegister, entry, address, value);
}
uint32_t HAL_GigEWriteRegister(void* entry, uint32_t address, uint32_t value) {
    NIMBREL2_DISPATCH(HAL_GigEWriteRegister, entry, address, value);
}
uint32_t HAL_GigEIsInMonitorMode(void* entry, uint32_t* monitor) {
    NIMBREL2_DISPATCH(HAL_GigEIsInMonitorMode, entry, monitor);
}
uint32_t HAL_GigEGetLocalApplicationPort(void* entry, uint32_t* port) {
    NIMBREL2_DISPATCH(HAL_GigEGetLocalApplicationPort, entry, port);
}
uint32_t HAL_GigEGetLocalApplicationIpAddress(void* entry, uint32_t* ipAddress) {
    NIMBREL2_DISPATCH(HAL_GigEGetLocalApplicationIpAddress, entry, ipAddress);
}
