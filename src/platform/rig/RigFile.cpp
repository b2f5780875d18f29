// SPDX-License-Identifier: Apache-2.0
// Reading rig files. Runs on the caller's thread; no lock.
#include "platform/rig/RigFile.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <initializer_list>
#include <set>
#include <sstream>
#include <system_error>

#include "platform/rig/JsonReader.h"

namespace Nimbrel2::Platform {

namespace {

constexpr std::size_t MaxFileBytes = 16U << 20;
constexpr int MaxDepth = 16;
constexpr double MaxSeconds = 86400;
constexpr std::size_t MaxReasonBytes = 400;
constexpr std::size_t MaxActionBytes = 200;
constexpr std::size_t MaxSteps = 10000;

// ---- Values ---------------------------------------------------------------------------------------------------------

template <class Value, std::size_t Count>
Value OneOf(const JsonValue& value, const std::array<std::pair<const char*, Value>, Count>& choices) {
    const std::string text = value.Text();
    std::string wanted;
    for (const auto& [name, choice] : choices) {
        if (text == name) {
            return choice;
        }
        wanted += std::string(wanted.empty() ? "" : ", ") + name;
    }
    value.Fail("one of " + wanted + " is wanted, not " + Quoted(text));
}

// A text of a discovery answer, which has a field of that size for it.
std::string FieldOf(const JsonValue& value, std::size_t size) {
    std::string text = value.Text();
    if (text.size() > size) {
        value.Fail("a text of at most " + std::to_string(size) + " bytes is wanted, not one of " +
                   std::to_string(text.size()) + ", " + Quoted(text));
    }
    return text;
}

std::uint32_t ToUnsigned32(const JsonValue& value, std::uint64_t minimum, std::uint64_t maximum) {
    return static_cast<std::uint32_t>(value.Unsigned(minimum, maximum));
}

std::chrono::milliseconds Seconds(const JsonValue& value) {
    return std::chrono::milliseconds(std::llround(value.Number(0, MaxSeconds) * 1000));
}

std::optional<std::uint32_t> ParseAddress(std::string_view text) {
    const char* next = text.data();
    const char* const end = next + text.size();
    std::uint32_t address = 0;
    for (int i = 0; i < 4; ++i) {
        if (i != 0 && (next == end || *next++ != '.')) {
            return std::nullopt;
        }
        std::uint32_t octet = 0;
        const auto [after, error] = std::from_chars(next, next + std::min<std::ptrdiff_t>(end - next, 3), octet);
        if (error != std::errc{} || octet > 255) {
            return std::nullopt;
        }
        address = address << 8 | octet;
        next = after;
    }
    return next == end ? std::optional(address) : std::nullopt;
}

std::uint32_t Address(const JsonValue& value) {
    const std::optional<std::uint32_t> address = ParseAddress(value.Text());
    if (!address.has_value()) {
        value.Fail("an IPv4 address is wanted, not " + Quoted(value.Text()));
    }
    return *address;
}

// Of a host, so not 0.0.0.0, which stands for having none.
std::uint32_t OwnAddress(const JsonValue& value) {
    const std::uint32_t address = Address(value);
    if (address == 0) {
        value.Fail("0.0.0.0 is nobody's address");
    }
    return address;
}

struct AddressAndMask {
    std::uint32_t address = 0;
    std::uint32_t mask = 0;
};

// "192.168.77.1/24", or 0.0.0.0, which is what a camera has that waits for an address.
AddressAndMask ToAddressAndMask(const JsonValue& value) {
    const std::string text = value.Text();
    const std::size_t slash = text.find('/');
    const std::optional<std::uint32_t> address = ParseAddress(std::string_view(text).substr(0, slash));
    const std::string bits = slash == std::string::npos ? "" : text.substr(slash + 1);
    const bool digits = !bits.empty() && bits.size() <= 2 &&
                        std::all_of(bits.begin(), bits.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    const unsigned int prefix = digits ? static_cast<unsigned int>(std::stoul(bits)) : 33;
    if (!address.has_value() || prefix > 32) {
        value.Fail("an IPv4 address with a prefix length (192.168.77.1/24) is wanted, not " + Quoted(text));
    }
    return {*address, prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - prefix)};
}

AddressAndMask OwnAddressAndMask(const JsonValue& value) {
    const AddressAndMask own = ToAddressAndMask(value);
    if (own.address == 0) {
        value.Fail("0.0.0.0 is nobody's address");
    }
    return own;
}

std::uint64_t Mac(const JsonValue& value) {
    const std::string text = value.Text();
    std::uint64_t mac = 0;
    bool good = text.size() == 17;
    for (std::size_t i = 0; good && i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (i % 3 == 2) {
            good = c == ':';
        } else {
            good = std::isxdigit(c) != 0;
            mac = mac << 4 | (std::isdigit(c) != 0 ? c - '0' : std::tolower(c) - 'a' + 10U);
        }
    }
    if (!good) {
        value.Fail("a MAC address (02:00:00:00:09:09) is wanted, not " + Quoted(text));
    }
    if ((mac >> 40 & 1) != 0) {  // IEEE 802: the first bit on the wire
        value.Fail("the MAC address of one camera is wanted, not that of a group, " + Quoted(text));
    }
    return mac;
}

template <class Element, class Read>
void ReadList(JsonObject& object, const char* key, std::vector<Element>* list, Read read) {
    object.Optional(key, [&](const JsonValue& values) {
        for (std::size_t i = 0; i < values.Size(); ++i) {
            list->push_back(read(values.At(i)));
        }
    });
}

// A bus is given in one of two forms: raw, as the list behind that key, or in words, without it.
void CheckForm(JsonObject& object, const char* rawKey, std::initializer_list<const char*> inWords) {
    if (object.Has(rawKey)) {
        for (const char* key : inWords) {
            object.Optional(key, [&](const JsonValue& value) {
                value.Fail(std::string("has no place beside \"") + rawKey + "\"");
            });
        }
        const JsonValue raw = object.Required(rawKey);
        if (raw.Size() == 0) {
            raw.Fail("is empty");
        }
    } else {
        object.Optional("placedCameras", [&](const JsonValue& value) {
            value.Fail(std::string("cameras have places only beside \"") + rawKey + "\"");
        });
    }
}

// ---- Buses ----------------------------------------------------------------------------------------------------------

PhyDescription ReadPhy(JsonObject& object) {
    PhyDescription phy;
    phy.name = object.Required("name").Text();
    static constexpr std::array<std::pair<const char*, PhyKind>, 4> kinds{{{"card", PhyKind::Card},
                                                                           {"repeater", PhyKind::Repeater},
                                                                           {"camera", PhyKind::Camera},
                                                                           {"device", PhyKind::Device}}};
    static constexpr std::array<std::pair<const char*, unsigned int>, 4> speeds{
        {{"S100", 0}, {"S200", 1}, {"S400", 2}, {"S800", 3}}};
    object.Optional("kind", [&](const JsonValue& value) { phy.kind = OneOf(value, kinds); });
    object.Optional("ports", [&](const JsonValue& value) { phy.ports = ToUnsigned32(value, 1, 27); });
    object.Optional("speed", [&](const JsonValue& value) { phy.speed = OneOf(value, speeds); });
    object.Optional("powerClass", [&](const JsonValue& value) { phy.powerClass = ToUnsigned32(value, 0, 7); });
    object.Optional("contender", [&](const JsonValue& value) { phy.contender = value.Boolean(); });
    object.Optional("plugged", [&](const JsonValue& value) { phy.plugged = value.Boolean(); });
    object.Optional("eui64", [&](const JsonValue& value) { phy.eui64 = value.HexOrNumber(16); });
    object.Optional("vendor", [&](const JsonValue& value) { phy.vendor = value.Text(); });
    object.Optional("model", [&](const JsonValue& value) { phy.model = value.Text(); });
    object.Optional("unitVersion", [&](const JsonValue& value) {
        phy.unitVersion = static_cast<std::uint32_t>(value.HexOrNumber(6));
        if (phy.unitVersion < 0x100 || phy.unitVersion > 0x102) {
            value.Fail("an IIDC unit version is \"0x100\", \"0x101\" or \"0x102\" (256, 257 or 258 as a number)");
        }
    });
    return phy;
}

CableEnd ReadCableEnd(const JsonValue& value) {
    if (value.Size() != 2) {
        value.Fail("a cable end is [\"name of a PHY\", port]");
    }
    return {value.At(0).Text(), ToUnsigned32(value.At(1), 0, 26)};
}

FireWireBusDescription ReadFireWireBus(const JsonValue& value) {
    JsonObject object(value);
    FireWireBusDescription bus;
    CheckForm(object, "selfIds", {"phys", "cables"});
    bus.name = object.Required("name").Text();
    object.Optional("gapCount", [&](const JsonValue& gap) { bus.gapCount = ToUnsigned32(gap, 0, 63); });
    ReadList(object, "phys", &bus.phys, [](const JsonValue& phy) {
        JsonObject keys(phy);
        PhyDescription description = ReadPhy(keys);
        keys.Done();
        return description;
    });
    ReadList(object, "cables", &bus.cables, [](const JsonValue& cable) {
        if (cable.Size() != 2) {
            cable.Fail("a cable has two ends");
        }
        return CableDescription{{ReadCableEnd(cable.At(0)), ReadCableEnd(cable.At(1))}};
    });
    ReadList(object, "selfIds", &bus.selfIds,
             [](const JsonValue& quadlet) { return static_cast<std::uint32_t>(quadlet.HexOrNumber(8)); });
    ReadList(object, "placedCameras", &bus.placedCameras, [](const JsonValue& camera) {
        JsonObject keys(camera);
        FireWireBusDescription::PlacedCamera placed;
        placed.phyId = ToUnsigned32(keys.Required("phyId"), 0, 62);
        placed.camera = ReadPhy(keys);
        keys.Done();
        return placed;
    });
    object.Done();
    return bus;
}

// All of a USB device but its place.
UsbDeviceDescription ReadUsbIdentity(JsonObject& object) {
    UsbDeviceDescription device;
    static constexpr std::array<std::pair<const char*, UsbKind>, 3> kinds{
        {{"hub", UsbKind::Hub}, {"camera", UsbKind::Camera}, {"device", UsbKind::Device}}};
    device.name = object.Required("name").Text();
    object.Optional("kind", [&](const JsonValue& kind) { device.kind = OneOf(kind, kinds); });
    object.Optional("speed", [&](const JsonValue& speed) { device.speed = ToUnsigned32(speed, 12, 20000); });
    object.Optional("ports", [&](const JsonValue& ports) { device.ports = ToUnsigned32(ports, 1, 15); });
    object.Optional("plugged", [&](const JsonValue& plugged) { device.plugged = plugged.Boolean(); });
    object.Optional("vendorId",
                    [&](const JsonValue& id) { device.vendorId = static_cast<std::uint16_t>(id.HexOrNumber(4)); });
    object.Optional("productId",
                    [&](const JsonValue& id) { device.productId = static_cast<std::uint16_t>(id.HexOrNumber(4)); });
    object.Optional("serial", [&](const JsonValue& text) { device.serial = text.Text(); });
    object.Optional("vendor", [&](const JsonValue& text) { device.vendor = text.Text(); });
    object.Optional("model", [&](const JsonValue& text) { device.model = text.Text(); });
    return device;
}

UsbDeviceDescription ReadUsbDevice(const JsonValue& value) {
    JsonObject object(value);
    UsbDeviceDescription device = ReadUsbIdentity(object);
    device.parent = object.Required("parent").Text();
    device.port = ToUnsigned32(object.Required("port"), 1, 15);
    object.Done();
    return device;
}

UsbSelfId ReadUsbRecord(const JsonValue& value) {
    JsonObject object(value);
    UsbSelfId record{};
    record.deviceId = ToUnsigned32(object.Required("deviceId"), 0, 0xFFFFFFFF);
    record.rootPortId = object.Required("rootPortId").HexOrNumber(16);
    record.routeString = object.Required("routeString").HexOrNumber(16);
    object.Optional("speed", [&](const JsonValue& speed) { record.speed = ToUnsigned32(speed, 0, 20000); });
    object.Optional("parentId", [&](const JsonValue& id) { record.parentId = id.Unsigned(0, 0xFFFFFFFF); });
    object.Done();
    return record;
}

UsbHostDescription ReadUsbHost(const JsonValue& value) {
    JsonObject object(value);
    UsbHostDescription host;
    CheckForm(object, "records", {"devices"});
    host.name = object.Required("name").Text();
    object.Optional("usb2Ports", [&](const JsonValue& ports) { host.usb2Ports = ToUnsigned32(ports, 0, 15); });
    object.Optional("usb3Ports", [&](const JsonValue& ports) { host.usb3Ports = ToUnsigned32(ports, 0, 15); });
    ReadList(object, "devices", &host.devices, ReadUsbDevice);
    ReadList(object, "records", &host.records, ReadUsbRecord);
    ReadList(object, "placedCameras", &host.placedCameras, [](const JsonValue& camera) {
        JsonObject keys(camera);
        UsbHostDescription::PlacedCamera placed;
        placed.deviceId = ToUnsigned32(keys.Required("deviceId"), 0, 0xFFFFFFFF);
        placed.camera = ReadUsbIdentity(keys);
        keys.Done();
        return placed;
    });
    object.Done();
    return host;
}

Simulated::ControlOwner ReadOwner(JsonObject& object) {
    Simulated::ControlOwner owner;
    owner.endpoint.address = OwnAddress(object.Required("address"));
    owner.endpoint.port = static_cast<std::uint16_t>(object.Required("port").Unsigned(1, 65535));
    object.Optional("exclusive", [&](const JsonValue& exclusive) { owner.exclusive = exclusive.Boolean(); });
    return owner;
}

Simulated::Faults ReadFaults(JsonObject& object) {
    Simulated::Faults faults;
    object.Optional("delayMs", [&](const JsonValue& delay) {
        faults.delayMinimum = faults.delayMaximum = std::chrono::milliseconds(delay.Unsigned(0, 60000));
    });
    object.Optional("lossPercent", [&](const JsonValue& loss) { faults.lossPercent = loss.Number(0, 100); });
    object.Optional("duplicatePercent",
                    [&](const JsonValue& percent) { faults.duplicatePercent = percent.Number(0, 100); });
    object.Optional("silent", [&](const JsonValue& silent) { faults.silent = silent.Boolean(); });
    return faults;
}

GigECameraDescription ReadGigECamera(const JsonValue& value, const std::string& interfaceName) {
    JsonObject object(value);
    GigECameraDescription camera;
    Simulated::SimulatedCameraOptions& options = camera.options;
    camera.name = object.Required("name").Text();
    options.interfaceName = interfaceName;
    options.mac = Mac(object.Required("mac"));
    const AddressAndMask address = ToAddressAndMask(object.Required("address"));
    options.address = address.address;
    options.subnetMask = address.mask;
    object.Optional("gateway", [&](const JsonValue& gateway) { options.gateway = Address(gateway); });
    object.Optional("plugged", [&](const JsonValue& plugged) { camera.plugged = plugged.Boolean(); });
    object.Optional("serial", [&](const JsonValue& text) { options.serialNumber = FieldOf(text, 16); });
    object.Optional("vendor", [&](const JsonValue& text) { options.vendor = FieldOf(text, 32); });
    object.Optional("model", [&](const JsonValue& text) { options.model = FieldOf(text, 32); });
    object.Optional("userName", [&](const JsonValue& text) { options.userDefinedName = FieldOf(text, 16); });
    object.Optional("deviceVersion", [&](const JsonValue& text) { options.deviceVersion = FieldOf(text, 32); });
    object.Optional("owner", [&](const JsonValue& owner) {
        JsonObject keys(owner);
        options.owner = ReadOwner(keys);
        keys.Done();
    });
    object.Optional("answers", [&](const JsonValue& answers) {
        JsonObject keys(answers);
        options.faults = ReadFaults(keys);
        keys.Done();
    });
    object.Done();
    return camera;
}

NetworkInterfaceDescription ReadNetworkInterface(const JsonValue& value) {
    JsonObject object(value);
    NetworkInterfaceDescription network;
    network.name = object.Required("name").Text();
    const AddressAndMask address = OwnAddressAndMask(object.Required("address"));
    network.address = address.address;
    network.subnetMask = address.mask;
    object.Optional("up", [&](const JsonValue& up) { network.up = up.Boolean(); });
    ReadList(object, "cameras", &network.cameras,
             [&network](const JsonValue& camera) { return ReadGigECamera(camera, network.name); });
    object.Done();
    return network;
}

// ---- The timeline ---------------------------------------------------------------------------------------------------

// What the timeline may name.
struct Names {
    std::set<std::string> devices;  // Everything that can be plugged in.
    std::set<std::string> buses;    // FireWire buses and USB hosts.
    std::set<std::string> places;   // What a device can be moved to.
    std::set<std::string> phys;     // Those of them on FireWire buses.
    std::set<std::string> cameras;  // GigE cameras.
    std::set<std::string> interfaces;

    explicit Names(const RigDescription& rig) {
        for (const FireWireBusDescription& bus : rig.fireWire) {
            buses.insert(bus.name);
            for (const PhyDescription& phy : bus.phys) {
                devices.insert(phy.name);
                places.insert(phy.name);
                phys.insert(phy.name);
            }
            for (const auto& placed : bus.placedCameras) {
                devices.insert(placed.camera.name);
            }
        }
        for (const UsbHostDescription& host : rig.usb) {
            buses.insert(host.name);
            places.insert(host.name);
            for (const UsbDeviceDescription& device : host.devices) {
                devices.insert(device.name);
                places.insert(device.name);
            }
            for (const auto& placed : host.placedCameras) {
                devices.insert(placed.camera.name);
            }
        }
        for (const NetworkInterfaceDescription& network : rig.gigE) {
            interfaces.insert(network.name);
            places.insert(network.name);
            for (const GigECameraDescription& camera : network.cameras) {
                devices.insert(camera.name);
                cameras.insert(camera.name);
            }
        }
    }
};

std::string Named(const JsonValue& value, const std::set<std::string>& names, const char* what) {
    const std::string name = value.Text();
    if (names.count(name) == 0) {
        value.Fail("the rig has no " + std::string(what) + " named " + Quoted(name));
    }
    return name;
}

AwaitedEvent ReadAwaited(const JsonValue& value) {
    static constexpr std::array<std::pair<const char*, AwaitedEvent::Kind>, 3> kinds{
        {{"reset", AwaitedEvent::Kind::Reset},
         {"arrival", AwaitedEvent::Kind::Arrival},
         {"removal", AwaitedEvent::Kind::Removal}}};
    JsonObject object(value);
    AwaitedEvent event;
    event.kind = OneOf(object.Required("event"), kinds);
    object.Optional("serial", [&](const JsonValue& serial) {
        if (event.kind == AwaitedEvent::Kind::Reset) {
            serial.Fail("a reset is of a whole bus and has no serial number");
        }
        event.serialNumber = ToUnsigned32(serial, 0, 0xFFFFFFFF);
    });
    object.Done();
    return event;
}

RigFault ReadFault(const JsonValue& value) {
    JsonObject object(value);
    RigFault fault;
    const JsonValue function = object.Required("function");
    fault.function = function.Text();
    const std::vector<std::string>& known = RigFaultFunctions();
    if (std::find(known.begin(), known.end(), fault.function) == known.end()) {
        function.Fail("the HAL has no function named " + Quoted(fault.function) +
                      "; `nimbrel rig schema` lists them, and hal/HAL.h tells what they do");
    }
    object.Optional("call", [&](const JsonValue& call) { fault.call = ToUnsigned32(call, 1, 1000000); });
    object.Optional("status", [&](const JsonValue& status) { fault.status = ToUnsigned32(status, 0, 0xFFFFFFFF); });
    object.Optional("delayMs",
                    [&](const JsonValue& delay) { fault.delay = std::chrono::milliseconds(delay.Unsigned(0, 60000)); });
    object.Done();
    return fault;
}

// Reads the object behind a key; read gets it as a JsonObject.
template <class Read>
RigAction ReadObject(const JsonValue& value, Read read) {
    JsonObject object(value);
    RigAction action = read(object);
    object.Done();
    return action;
}

struct ActionKey {
    const char* key;
    RigAction (*read)(const JsonValue& value, const Names& names);
};

constexpr ActionKey ActionKeys[] = {
    {"plug",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return PlugStep{Named(value, names.devices, "device")};
     }},
    {"unplug",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return UnplugStep{Named(value, names.devices, "device")};
     }},
    {"move",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return ReadObject(value, [&](JsonObject& object) -> RigAction {
             MoveStep step;
             step.device = Named(object.Required("device"), names.devices, "device");
             step.to = Named(object.Required("to"), names.places, "hub, host, PHY or network interface");
             object.Optional("port", [&](const JsonValue& port) {
                 step.port = ToUnsigned32(port, 0, 26);
                 if (names.interfaces.count(step.to) != 0) {
                     port.Fail("a network interface has no ports to choose from");
                 }
             });
             object.Optional("ownPort", [&](const JsonValue& port) {
                 step.ownPort = ToUnsigned32(port, 0, 26);
                 if (names.phys.count(step.to) == 0) {
                     port.Fail("only a FireWire device has more than one port to choose from");
                 }
             });
             return step;
         });
     }},
    {"busReset",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return BusResetStep{Named(value, names.buses, "FireWire bus or USB host"), 1};
     }},
    {"resetStorm",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return ReadObject(value, [&](JsonObject& object) -> RigAction {
             return BusResetStep{Named(object.Required("bus"), names.buses, "FireWire bus or USB host"),
                                 ToUnsigned32(object.Required("count"), 1, 10000)};
         });
     }},
    {"busError",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return BusErrorStep{Named(value, names.buses, "FireWire bus or USB host")};
     }},
    {"take",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return ReadObject(value, [&](JsonObject& object) -> RigAction {
             const std::string camera = Named(object.Required("camera"), names.cameras, "GigE camera");
             return TakeStep{camera, ReadOwner(object)};
         });
     }},
    {"release",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return ReleaseStep{Named(value, names.cameras, "GigE camera")};
     }},
    {"setAddress",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return ReadObject(value, [&](JsonObject& object) -> RigAction {
             AddressStep step;
             step.camera = Named(object.Required("camera"), names.cameras, "GigE camera");
             const AddressAndMask address = ToAddressAndMask(object.Required("address"));
             step.address = address.address;
             step.subnetMask = address.mask;
             object.Optional("gateway", [&](const JsonValue& gateway) { step.gateway = Address(gateway); });
             return step;
         });
     }},
    {"link",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return ReadObject(value, [&](JsonObject& object) -> RigAction {
             const std::string name = Named(object.Required("interface"), names.interfaces, "network interface");
             return LinkStep{name, object.Required("up").Boolean()};
         });
     }},
    {"answers",
     [](const JsonValue& value, const Names& names) -> RigAction {
         return ReadObject(value, [&](JsonObject& object) -> RigAction {
             const std::string camera = Named(object.Required("camera"), names.cameras, "GigE camera");
             return AnswersStep{camera, ReadFaults(object)};
         });
     }},
    {"fault", [](const JsonValue& value, const Names&) -> RigAction { return ReadFault(value); }},
};

// The one key of the object that names an action.
struct NamedAction {
    RigAction action;
    const char* key = nullptr;
};

NamedAction ReadAction(JsonObject& object, const JsonValue& value, const Names& names) {
    NamedAction read;
    int actions = 0;
    for (const ActionKey& action : ActionKeys) {
        object.Optional(action.key, [&](const JsonValue& what) {
            read = {action.read(what, names), action.key};
            ++actions;
        });
    }
    object.Done();
    if (actions != 1) {
        value.Fail("a step is exactly one action, it has " + (actions == 0 ? "none" : std::to_string(actions)));
    }
    return read;
}

std::string SecondsText(std::chrono::milliseconds time) {
    std::ostringstream out;
    out << std::chrono::duration<double>(time).count();
    return out.str();
}

// Time goes on from step to step: latest is that of the steps before.
RigStep ReadStep(const JsonValue& value, const Names& names, std::chrono::milliseconds* latest) {
    JsonObject object(value);
    RigStep step;
    object.Optional("at", [&](const JsonValue& at) {
        step.at = Seconds(at);
        if (*step.at < *latest) {
            at.Fail(SecondsText(*step.at) + " s is before an earlier step, which is at " + SecondsText(*latest) + " s");
        }
        *latest = *step.at;
    });
    object.Optional("after", [&](const JsonValue& after) { step.after = ReadAwaited(after); });
    if (step.at.has_value() && step.after.has_value()) {
        value.Fail("a step comes \"at\" a time or \"after\" an event, not both");
    }
    const NamedAction read = ReadAction(object, value, names);
    step.action = read.action;
    step.pointer = value.Pointer();
    step.actionPointer = step.pointer + "/" + read.key;
    return step;
}

// Whether each step can be done when its turn comes: what happens to a rig depends on nothing but its timeline.
void Rehearse(const RigPlan& plan) {
    if (plan.timeline.empty()) {
        return;
    }
    Rig rig(plan.rig);
    for (const RigStep& step : plan.timeline) {
        if (std::holds_alternative<BusResetStep>(step.action)) {
            continue;  // always can
        }
        if (const std::optional<std::string> problem = Apply(rig, step.action)) {
            throw JsonProblem(step.actionPointer, *problem);
        }
    }
}

// ---- The whole ------------------------------------------------------------------------------------------------------

RigPlan ReadPlan(const JsonValue& root) {
    JsonObject object(root);
    RigPlan plan;
    object.Optional("$schema", [](const JsonValue& schema) { schema.Text(); });
    object.Optional("name", [&](const JsonValue& name) { plan.name = name.Text(); });
    object.Optional("description", [&](const JsonValue& text) { plan.description = text.Text(); });
    ReadList(object, "firewire", &plan.rig.fireWire, ReadFireWireBus);
    ReadList(object, "usb", &plan.rig.usb, ReadUsbHost);
    ReadList(object, "gige", &plan.rig.gigE, ReadNetworkInterface);
    ReadList(object, "virtualCameras", &plan.rig.virtualCameras,
             [](const JsonValue& serial) { return ToUnsigned32(serial, 0, 0xFFFFFFFF); });
    const std::vector<RigProblem> problems = Rig::Validate(plan.rig);
    if (!problems.empty()) {
        throw JsonProblem(problems.front().pointer, problems.front().reason);
    }
    const Names names(plan.rig);
    object.Optional("timeline", [](const JsonValue& steps) {
        if (steps.Size() > MaxSteps) {
            steps.Fail("a timeline has at most " + std::to_string(MaxSteps) + " steps, not " +
                       std::to_string(steps.Size()));
        }
    });
    std::chrono::milliseconds latest{0};
    ReadList(object, "timeline", &plan.timeline, [&](const JsonValue& step) { return ReadStep(step, names, &latest); });
    Rehearse(plan);
    object.Optional("end", [&](const JsonValue& end) {
        JsonObject keys(end);
        keys.Required("cameras");
        plan.finalSerialNumbers.emplace();
        ReadList(keys, "cameras", &*plan.finalSerialNumbers,
                 [](const JsonValue& serial) { return ToUnsigned32(serial, 0, 0xFFFFFFFF); });
        std::sort(plan.finalSerialNumbers->begin(), plan.finalSerialNumbers->end());
        keys.Done();
    });
    object.Done();
    return plan;
}

// Names come from the file and are as long as they like.
RigFileError ErrorIn(const std::string& file, const JsonProblem& problem) {
    return {file, problem.pointer, Cut(problem.what(), MaxReasonBytes)};
}

}  // namespace

RigPlan ParseRig(std::string_view text, const std::string& file) {
    try {
        const nlohmann::json document = ParseStrictly(text, MaxDepth);
        return ReadPlan(JsonValue(document, ""));
    } catch (const JsonProblem& problem) {
        throw ErrorIn(file, problem);
    }
}

RigAction ParseRigAction(std::string_view text, const RigDescription& rig) {
    try {
        const nlohmann::json document = ParseStrictly(text, MaxDepth);
        const JsonValue value(document, "");
        JsonObject object(value);
        return ReadAction(object, value, Names(rig)).action;
    } catch (const JsonProblem& problem) {
        throw ErrorIn(Cut(std::string(text), MaxActionBytes), problem);
    }
}

RigPlan ReadRigFile(const std::string& path) {
    errno = 0;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int error = errno;
        throw RigFileError(path, "",
                           "cannot be opened" + (error == 0 ? "" : ": " + std::generic_category().message(error)));
    }
    std::string text(MaxFileBytes + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (in.bad()) {
        throw RigFileError(path, "", "cannot be read");
    }
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (text.size() > MaxFileBytes) {
        throw RigFileError(path, "", "is larger than 16 MiB");
    }
    return ParseRig(text, path);
}

void KeepNetworkInterfaces(RigDescription* rig, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (std::none_of(rig->gigE.begin(), rig->gigE.end(),
                         [&name](const NetworkInterfaceDescription& network) { return network.name == name; })) {
            throw std::invalid_argument("the rig has no network interface \"" + name + "\"");
        }
    }
    std::erase_if(rig->gigE, [&names](const NetworkInterfaceDescription& network) {
        return std::find(names.begin(), names.end(), network.name) == names.end();
    });
}

}  // namespace Nimbrel2::Platform
