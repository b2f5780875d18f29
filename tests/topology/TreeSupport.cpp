// SPDX-License-Identifier: Apache-2.0
// What tests of topology trees share. Pure; no thread, no lock.
#include "tests/topology/TreeSupport.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <set>

#include "topology/UsbTopology.h"

namespace Nimbrel2::Testing {

namespace {

using Ports = std::vector<TopologyNode::PortType>;

constexpr unsigned int MostPhys = 63;
constexpr unsigned int MostPorts = 27;  // three and three times eight

const char* NameOf(TopologyNode::NodeType type) {
    switch (type) {
        case TopologyNode::NODE_COMPUTER:
            return "computer";
        case TopologyNode::NODE_BUS:
            return "bus";
        case TopologyNode::NODE_CAMERA:
            return "camera";
        case TopologyNode::NODE_DEVICE:
            return "device";
    }
    return "unknown";
}

const char* NameOf(InterfaceType type) {
    switch (type) {
        case INTERFACE_IEEE1394:
            return "1394";
        case INTERFACE_USB_2:
            return "usb2";
        case INTERFACE_USB_3:
            return "usb3";
        case INTERFACE_GIGE:
            return "gige";
        case INTERFACE_NONE:
            return "none";
    }
    return "unknown";
}

void DumpInto(std::string& text, const TopologyNode& node, unsigned int depth) {
    text.append(std::size_t{2} * depth, ' ');
    text += std::string(NameOf(node.GetNodeType())) + ' ' + NameOf(node.GetInterfaceType()) + ' ' +
            std::to_string(node.GetDeviceId()) + " [";
    for (unsigned int i = 0; i < node.GetNumPorts(); ++i) {
        const TopologyNode::PortType port = node.GetPortType(i);
        text += port == TopologyNode::PORT_TO_PARENT       ? 'P'
                : port == TopologyNode::PORT_TO_CHILD      ? 'C'
                : port == TopologyNode::PORT_NOT_CONNECTED ? '-'
                                                           : '?';
    }
    text += ']';
    const ZevoGuid guid = node.GetGuid();
    if (!(guid == ZevoGuid{})) {
        char words[48];
        std::snprintf(words, sizeof words, " %x-%x-%x-%x", guid.value[0], guid.value[1], guid.value[2], guid.value[3]);
        text += words;
    }
    text += '\n';
    for (unsigned int i = 0; i < node.GetNumChildren(); ++i) {
        DumpInto(text, node.GetChild(i), depth + 1);
    }
}

Ports PortsOf(const TopologyNode& node) {
    Ports ports;
    for (unsigned int i = 0; i < node.GetNumPorts(); ++i) {
        ports.push_back(node.GetPortType(i));
    }
    return ports;
}

unsigned int CountPorts(const TopologyNode& node, TopologyNode::PortType type) {
    const Ports ports = PortsOf(node);
    return static_cast<unsigned int>(std::count(ports.begin(), ports.end(), type));
}

Ports ParentThenChildren(unsigned int children) {
    Ports ports(children + 1, TopologyNode::PORT_TO_CHILD);
    ports.front() = TopologyNode::PORT_TO_PARENT;
    return ports;
}

Ports ChildrenThenParent(unsigned int children) {
    Ports ports(children + 1, TopologyNode::PORT_TO_CHILD);
    ports.back() = TopologyNode::PORT_TO_PARENT;
    return ports;
}

// Walks a tree and writes down what is wrong with it.
class Checker {
public:
    explicit Checker(Input input) : m_input(input) {}

    void CheckComputer(const TopologyNode& computer) {
        Demand(computer.GetInterfaceType() == INTERFACE_NONE, "the computer is on a bus");
        Demand(computer.GetDeviceId() == 0, "the computer has a device id");
        Demand(computer.GetGuid() == ZevoGuid{}, "the computer has a guid");
        Demand(PortsOf(computer) == Ports(computer.GetNumChildren(), TopologyNode::PORT_TO_CHILD),
               "the computer's ports are not one to each bus");
        int previous = -1;
        for (unsigned int i = 0; i < computer.GetNumChildren(); ++i) {
            const TopologyNode& bus = computer.GetChild(i);
            Demand(static_cast<int>(bus.GetInterfaceType()) > previous, "the buses are out of order or repeated");
            previous = static_cast<int>(bus.GetInterfaceType());
            CheckBus(bus);
        }
    }

    void CheckFireWireTree(const TopologyNode& root) {
        Demand(root.GetNumPorts() > 0 && root.GetPortType(0) == TopologyNode::PORT_TO_PARENT,
               "the root's first port does not lead to its parent");
        if (m_input == Input::WellFormed) {
            Demand(CountNodes(root) <= MostPhys, "more than 63 PHYs");
            m_nextPhyId = 0;
        }
        CheckPhy(root, true);
    }

    void CheckUsbHost(const TopologyNode& host) {
        m_usbIds.clear();
        CheckUsbFields(host);
        Demand(host.GetDeviceId() == 63, "the host's device id is not 63");
        Demand(PortsOf(host) == ParentThenChildren(host.GetNumChildren()), "the host's ports are wrong");
        if (m_input == Input::WellFormed) {
            Demand(host.GetGuid() == ZevoGuid{}, "the host has a guid");
        }
        Demand(CountNodes(host) <= MaxUsbNodes, "too many nodes below a host");
        for (unsigned int i = 0; i < host.GetNumChildren(); ++i) {
            CheckUsbDevice(host.GetChild(i), 0);
        }
    }

    void Demand(bool holds, const char* violation) {
        if (!holds) {
            m_violations.emplace_back(violation);
        }
    }

    std::vector<std::string> Take() { return std::move(m_violations); }

private:
    // Of one node of a bus tree. The text is only made of what is wrong: trees may be large.
    void Demand(bool holds, const TopologyNode& node, const char* violation) {
        if (!holds) {
            m_violations.push_back((node.GetInterfaceType() == INTERFACE_IEEE1394 ? "PHY " : "USB device ") +
                                   std::to_string(node.GetDeviceId()) + ' ' + violation);
        }
    }

    void CheckBus(const TopologyNode& bus) {
        Demand(bus.GetNodeType() == TopologyNode::NODE_BUS, "a child of the computer is no bus");
        Demand(bus.GetInterfaceType() < INTERFACE_NONE, "a bus of no known kind");
        Demand(bus.GetDeviceId() == 0, "a bus has a device id");
        Demand(bus.GetGuid() == ZevoGuid{}, "a bus has a guid");
        Demand(bus.GetNumChildren() > 0, "a bus without cameras");
        Demand(PortsOf(bus) == ParentThenChildren(bus.GetNumChildren()), "a bus's ports are wrong");
        for (unsigned int i = 0; i < bus.GetNumChildren(); ++i) {
            const TopologyNode& child = bus.GetChild(i);
            if (child.GetNodeType() == TopologyNode::NODE_CAMERA) {
                CheckFlatCamera(bus, child, static_cast<int>(i));
            } else if (bus.GetInterfaceType() == INTERFACE_IEEE1394) {
                if (m_input == Input::Anything && child.GetNodeType() == TopologyNode::NODE_COMPUTER) {
                    Demand(child.GetNumChildren() == 0 && child.GetNumPorts() == 0, "a bus without packets has nodes");
                } else {
                    CheckFireWireTree(child);
                }
            } else if (bus.GetInterfaceType() == INTERFACE_USB_3) {
                CheckUsbHost(child);
            } else {
                Demand(false, "a bus that only has cameras has something else");
            }
        }
    }

    void CheckFlatCamera(const TopologyNode& bus, const TopologyNode& camera, int position) {
        const InterfaceType type = bus.GetInterfaceType();
        Demand(type != INTERFACE_IEEE1394, "a camera stands directly on the 1394 bus");
        Demand(camera.GetInterfaceType() == type ||
                   (type == INTERFACE_GIGE && camera.GetInterfaceType() == INTERFACE_IEEE1394),
               "a camera is on another bus than its parent");
        Demand(camera.GetDeviceId() == position, "a camera's device id is not its position");
        Demand(camera.GetNumChildren() == 0, "a camera has children");
        Demand(PortsOf(camera) == Ports{TopologyNode::PORT_TO_PARENT}, "a camera's ports are wrong");
    }

    // Subtrees are numbered before their parents, first child first, so a walk in that order counts up.
    void CheckPhy(const TopologyNode& phy, bool isRoot) {
        Demand(phy.GetNodeType() == TopologyNode::NODE_DEVICE, phy, "is no device");
        Demand(phy.GetInterfaceType() == INTERFACE_IEEE1394, phy, "is on another bus");
        Demand(phy.GetDeviceId() >= 0 && phy.GetDeviceId() <= 63, phy, "has no six-bit phy id");
        for (const TopologyNode::PortType port : PortsOf(phy)) {
            Demand(port >= TopologyNode::PORT_NOT_CONNECTED && port <= TopologyNode::PORT_TO_CHILD, phy,
                   "has a port of no known kind");
        }
        if (!isRoot) {
            Demand(phy.GetNumChildren() <= CountPorts(phy, TopologyNode::PORT_TO_CHILD), phy,
                   "has more children than ports");
        }
        for (unsigned int i = 0; i < phy.GetNumChildren(); ++i) {
            if (!isRoot) {
                Demand(phy.GetChild(i).GetDeviceId() < phy.GetDeviceId(), phy, "has a child above its own phy id");
            }
            CheckPhy(phy.GetChild(i), false);
        }
        if (m_input == Input::WellFormed) {
            Demand(phy.GetDeviceId() == m_nextPhyId++, phy, "is out of order");
            Demand(phy.GetNumChildren() == CountPorts(phy, TopologyNode::PORT_TO_CHILD), phy, "lacks children");
            Demand(CountPorts(phy, TopologyNode::PORT_TO_PARENT) == 1, phy, "has not one parent port");
        }
    }

    void CheckUsbFields(const TopologyNode& node) {
        Demand(node.GetNodeType() == TopologyNode::NODE_DEVICE, node, "is no device");
        Demand(node.GetInterfaceType() == INTERFACE_USB_3, node, "is on another bus");
    }

    void CheckUsbDevice(const TopologyNode& device, unsigned int tier) {
        CheckUsbFields(device);
        Demand(tier <= 4, device, "is deeper than tier 4");
        Demand(PortsOf(device) == ChildrenThenParent(device.GetNumChildren()), device, "has wrong ports");
        if (m_input == Input::WellFormed) {
            Demand(m_usbIds.insert(device.GetDeviceId()).second, device, "is there twice");
            Demand(device.GetDeviceId() != 63, device, "has the host's id");
        }
        for (unsigned int i = 0; i < device.GetNumChildren(); ++i) {
            CheckUsbDevice(device.GetChild(i), tier + 1);
        }
    }

    const Input m_input;
    int m_nextPhyId = 0;
    std::set<int> m_usbIds;
    std::vector<std::string> m_violations;
};

unsigned int Roll(std::mt19937& random, unsigned int low, unsigned int high) {
    return std::uniform_int_distribution<unsigned int>(low, high)(random);
}

// Ports in random order: one a child, the parent's, and any number of empty and absent ones up to a PHY's limit.
std::vector<unsigned int> RandomPorts(std::mt19937& random, std::size_t children, bool isRoot) {
    std::vector<unsigned int> ports(children, TopologyNode::PORT_TO_CHILD);
    if (!isRoot) {
        ports.push_back(TopologyNode::PORT_TO_PARENT);
    }
    const unsigned int room = MostPorts - static_cast<unsigned int>(ports.size());
    const unsigned int others = Roll(random, 0, std::min(room, Roll(random, 0, MostPorts)));
    for (unsigned int i = 0; i < others; ++i) {
        ports.push_back(Roll(random, 0, 1));
    }
    std::shuffle(ports.begin(), ports.end(), random);
    return ports;
}

void GivePorts(std::mt19937& random, Phy& phy, bool isRoot) {
    for (Phy& child : phy.children) {
        GivePorts(random, child, false);
    }
    phy.ports = RandomPorts(random, phy.children.size(), isRoot);
}

Phy Grow(const std::vector<std::vector<unsigned int>>& children, unsigned int index) {
    Phy phy;
    for (const unsigned int child : children[index]) {
        phy.children.push_back(Grow(children, child));
    }
    return phy;
}

void AppendSubtree(const Phy& phy, unsigned int& nextId, std::vector<SelfIdPacket_t>& stream) {
    for (const Phy& child : phy.children) {
        AppendSubtree(child, nextId, stream);
    }
    AppendPhy(nextId++, phy.ports, stream);
}

TopologyNode ExpectedSubtree(const Phy& phy, int& nextId, bool isRoot) {
    std::vector<TopologyNode> children;
    for (const Phy& child : phy.children) {
        children.push_back(ExpectedSubtree(child, nextId, false));
    }
    TopologyNode node(ZevoGuid{}, nextId++, TopologyNode::NODE_DEVICE, INTERFACE_IEEE1394);
    for (TopologyNode& child : children) {
        node.AddChild(std::move(child));
    }
    if (isRoot) {
        node.AddPortType(TopologyNode::PORT_TO_PARENT);
    }
    for (const unsigned int port : phy.ports) {
        if (port != 0) {
            node.AddPortType(static_cast<TopologyNode::PortType>(port));
        }
    }
    return node;
}

std::vector<unsigned int> RandomHubPorts(std::mt19937& random, unsigned int most) {
    std::vector<unsigned int> ports(15);
    std::iota(ports.begin(), ports.end(), 1u);
    std::shuffle(ports.begin(), ports.end(), random);
    ports.resize(std::min(Roll(random, 0, 6), most));
    return ports;
}

class UsbGrowth {
public:
    explicit UsbGrowth(std::mt19937& random) : m_random(random) {}

    bool IsFull() const { return m_devicesLeft == 0; }

    UsbDevice MakeDevice(unsigned int port) {
        --m_devicesLeft;
        if (m_nextId == static_cast<std::uint32_t>(UsbHostDeviceId)) {
            ++m_nextId;
        }
        return UsbDevice{m_nextId++, port, {}};
    }

    // Tier by tier, because what is attached to a port can only be told when no other device of the tier is on a port
    // of that number.
    void Populate(UsbDevice& onRootPort) {
        std::vector<UsbDevice*> tier{&onRootPort};
        for (unsigned int depth = 0; depth + 1 < UsbTierCount; ++depth) {
            std::vector<UsbDevice*> next;
            for (UsbDevice* hub : tier) {
                const bool isAlone = std::count_if(tier.begin(), tier.end(), [hub](const UsbDevice* other) {
                                         return other->port == hub->port;
                                     }) == 1;
                if (!isAlone || Roll(m_random, 0, 3) == 0) {
                    continue;
                }
                for (const unsigned int port : RandomHubPorts(m_random, m_devicesLeft)) {
                    hub->children.push_back(MakeDevice(port));
                }
                for (UsbDevice& child : hub->children) {
                    next.push_back(&child);
                }
            }
            tier = std::move(next);
        }
    }

private:
    std::mt19937& m_random;
    std::uint32_t m_nextId = 1;
    unsigned int m_devicesLeft = 127;
};

void AppendRecords(const UsbDevice& device, std::uint64_t rootPortId, std::uint64_t route, unsigned int tier,
                   std::uint64_t parentId, std::vector<UsbSelfId>& records) {
    records.push_back(UsbSelfId{device.deviceId, 5000, rootPortId, route, parentId});
    for (const UsbDevice& child : device.children) {
        AppendRecords(child, rootPortId, route | static_cast<std::uint64_t>(child.port) << (4 * tier), tier + 1,
                      device.deviceId, records);
    }
}

TopologyNode ExpectedUsbDevice(const UsbDevice& device) {
    TopologyNode node(ZevoGuid{}, static_cast<int>(device.deviceId), TopologyNode::NODE_DEVICE, INTERFACE_USB_3);
    for (const UsbDevice& child : device.children) {
        node.AddChild(ExpectedUsbDevice(child));
        node.AddPortType(TopologyNode::PORT_TO_CHILD);
    }
    node.AddPortType(TopologyNode::PORT_TO_PARENT);
    return node;
}

}  // namespace

std::string Dump(const TopologyNode& tree) {
    std::string text;
    DumpInto(text, tree, 0);
    return text;
}

unsigned int CountNodes(const TopologyNode& tree) {
    unsigned int nodes = 1;
    for (unsigned int i = 0; i < tree.GetNumChildren(); ++i) {
        nodes += CountNodes(tree.GetChild(i));
    }
    return nodes;
}

std::vector<std::string> Violations(const TopologyNode& tree, Input input) {
    Checker checker(input);
    if (tree.GetNodeType() == TopologyNode::NODE_COMPUTER) {
        checker.CheckComputer(tree);
    } else if (tree.GetInterfaceType() == INTERFACE_IEEE1394) {
        checker.CheckFireWireTree(tree);
    } else if (tree.GetInterfaceType() == INTERFACE_USB_3) {
        checker.CheckUsbHost(tree);
    } else {
        checker.Demand(false, "the root is neither a computer nor the root of a bus");
    }
    return checker.Take();
}

Phy RandomBus(std::mt19937& random) {
    const unsigned int count = Roll(random, 1, MostPhys);
    const unsigned int reach = Roll(random, 1, count);  // 1 makes a chain, count makes it bushy
    std::vector<std::vector<unsigned int>> children(count);
    for (unsigned int i = 1; i < count; ++i) {
        unsigned int parent = i - Roll(random, 1, std::min(i, reach));
        while (children[parent].size() == MostPorts - 1) {  // one port leads up
            parent = Roll(random, 0, i - 1);
        }
        children[parent].push_back(i);
    }
    Phy root = Grow(children, 0);
    GivePorts(random, root, true);
    return root;
}

void AppendPhy(unsigned int phyId, const std::vector<unsigned int>& ports, std::vector<SelfIdPacket_t>& stream) {
    const auto port = [&ports](std::size_t index) { return index < ports.size() ? ports[index] : 0; };
    const auto byte = [](unsigned int value) { return static_cast<std::uint8_t>(value); };
    const std::size_t extended = ports.size() <= 3 ? 0 : (ports.size() - 3 + 7) / 8;
    // Identifier 10 and phy id; link active, gap count 63; 400 Mbit/s, contender.
    stream.push_back(SelfIdPacket_t{
        {byte(0x80 | phyId), 0x7F, 0x88, byte(port(0) << 6 | port(1) << 4 | port(2) << 2 | (extended != 0 ? 1 : 0))}});
    for (std::size_t n = 0; n < extended; ++n) {
        const std::size_t a = 3 + 8 * n;
        stream.push_back(SelfIdPacket_t{
            {byte(0x80 | phyId), byte(0x80 | static_cast<unsigned int>(n) << 4 | port(a)),
             byte(port(a + 1) << 6 | port(a + 2) << 4 | port(a + 3) << 2 | port(a + 4)),
             byte(port(a + 5) << 6 | port(a + 6) << 4 | port(a + 7) << 2 | (n + 1 < extended ? 1 : 0))}});
    }
}

std::vector<SelfIdPacket_t> SelfIdStream(const Phy& root) {
    std::vector<SelfIdPacket_t> stream;
    unsigned int nextId = 0;
    AppendSubtree(root, nextId, stream);
    return stream;
}

TopologyNode ExpectedTree(const Phy& root) {
    int nextId = 0;
    return ExpectedSubtree(root, nextId, true);
}

std::vector<UsbDevice> RandomUsbTree(std::mt19937& random) {
    std::vector<UsbDevice> rootPorts;
    UsbGrowth growth(random);
    const unsigned int count = Roll(random, 0, 8);
    for (unsigned int port = 1; port <= count && !growth.IsFull(); ++port) {
        UsbDevice device = growth.MakeDevice(port);
        growth.Populate(device);
        rootPorts.push_back(std::move(device));
    }
    return rootPorts;
}

std::vector<UsbSelfId> UsbRecords(const std::vector<UsbDevice>& rootPorts) {
    std::vector<UsbSelfId> records;
    for (const UsbDevice& device : rootPorts) {
        AppendRecords(device, 0x100 + device.port, 0, 0, 63, records);
    }
    return records;
}

TopologyNode ExpectedHost(const std::vector<UsbDevice>& rootPorts) {
    TopologyNode host(ZevoGuid{}, 63, TopologyNode::NODE_DEVICE, INTERFACE_USB_3);
    host.AddPortType(TopologyNode::PORT_TO_PARENT);
    for (const UsbDevice& device : rootPorts) {
        host.AddChild(ExpectedUsbDevice(device));
        host.AddPortType(TopologyNode::PORT_TO_CHILD);
    }
    return host;
}

}  // namespace Nimbrel2::Testing
