// SPDX-License-Identifier: Apache-2.0
// IEEE 1394 buses as the kernel shows them. File operations of programs come in on a thread of the mocking library,
// late answers on one of our own; tests call from theirs. One mutex guards all of it.
//
// An open file is the slave side of a terminal of its own, so that poll and hang-ups are real: a byte in it stands for
// an event in the queue beside it.
#include "tests/support/EmulatedFireWire.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/firewire-cdev.h>
#include <linux/firewire-constants.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/rig/ConfigRom.h"
#include "platform/rig/FireWireModel.h"

namespace Nimbrel2::Testing {

namespace {

using Platform::FireWireModel;
using Platform::PhyDescription;
using Platform::PhyKind;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;
namespace fs = std::filesystem;

constexpr std::uint64_t RomOffset = 0xFFFFF0000400;
constexpr std::uint64_t StateClearOffset = 0xFFFFF0000000;
constexpr std::uint64_t TopologyMapOffset = 0xFFFFF0001000;
constexpr std::uint32_t CycleMaster = 0x100;
constexpr char PciBridge[] = "/devices/pci0000:00/0000:00:1e.0/";

[[noreturn]] void Fail(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string Hex(std::uint64_t value, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*llx", digits, static_cast<unsigned long long>(value));
    return text;
}

template <class Event>
Bytes ToBytes(const Event& event, std::size_t size = sizeof(Event)) {
    Bytes bytes(size);
    std::memcpy(bytes.data(), &event, size);
    return bytes;
}

/// A quadlet as it stands in payloads.
Bytes InBusOrder(std::uint32_t quadlet) { return ToBytes(htobe32(quadlet)); }

/// A terminal whose slave side a program opens.
class Terminal {
public:
    Terminal() : m_master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        if (m_master < 0 || ::unlockpt(m_master) != 0) {
            Fail("a terminal");
        }
        char name[64];
        if (::ptsname_r(m_master, name, sizeof name) != 0) {
            Fail("the terminal's name");
        }
        m_name = name;
        // By the descriptor, for the name would be looked for in the mocked /dev.
        m_slave = ::ioctl(m_master, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios raw{};
        if (m_slave < 0 || ::tcgetattr(m_slave, &raw) != 0) {
            Fail("the terminal's other side");
        }
        ::cfmakeraw(&raw);
        ::tcsetattr(m_slave, TCSANOW, &raw);
    }
    ~Terminal() {
        HangUp();
        ::close(m_slave);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    const std::string& GetName() const { return m_name; }
    void Ring() const {
        if (m_master < 0) {
            return;
        }
        if (::write(m_master, "!", 1) != 1) {
            Fail("a doorbell");
        }
        // The byte is passed on a little later. What is called next is to find it there, like an event of the kernel.
        pollfd heard{m_slave, POLLIN, 0};
        while (::poll(&heard, 1, -1) < 0) {
            if (errno != EINTR) {
                Fail("a doorbell's ring");
            }
        }
    }
    void Unring() const {
        char byte;
        if (m_master >= 0 && ::read(m_slave, &byte, 1) != 1) {
            Fail("a doorbell's end");
        }
    }
    void HangUp() {
        if (m_master >= 0) {
            ::close(std::exchange(m_master, -1));
        }
    }

private:
    int m_master;
    int m_slave = -1;
    std::string m_name;
};

}  // namespace

class EmulatedFireWire::State {
public:
    State() : m_testbed(umockdev_testbed_new()), m_handler(umockdev_ioctl_base_new()) {
        char* root = umockdev_testbed_get_root_dir(m_testbed);
        m_root = root;
        g_free(root);
        g_signal_connect(m_handler, "client-connected", G_CALLBACK(&State::OnOpen), this);
        g_signal_connect(m_handler, "handle-ioctl", G_CALLBACK(&State::OnIoctl), this);
        g_signal_connect(m_handler, "handle-read", G_CALLBACK(&State::OnRead), this);
        fs::create_directories(m_root / "dev");
        fs::create_directories(m_root / "sys/bus/pci/devices");
        m_timer = std::thread([this] { RunTimer(); });
    }

    ~State() {
        {
            const std::lock_guard lock(m_mutex);
            m_ending = true;
            m_timerChanged.notify_all();
        }
        m_timer.join();
        g_signal_handlers_disconnect_by_data(m_handler, this);
        g_object_unref(m_testbed);
        g_object_unref(m_handler);
    }

    const fs::path& GetRoot() const { return m_root; }
    std::unique_lock<std::mutex> Lock() const { return std::unique_lock(m_mutex); }

    /// One open of a node's file.
    struct Client {
        std::shared_ptr<Terminal> terminal;
        std::string phy;
        bool isDead = false;
        std::deque<Bytes> events;
        bool wantsResets = false;
        std::uint64_t resetClosure = 0;
        bool wantsPhyPackets = false;
        std::uint64_t phyClosure = 0;
    };

    /// A node that the kernel has a file for.
    struct Node {
        std::string phy;
        const PhyDescription* description = nullptr;
        std::string file;
        fs::path directory;
        std::uint8_t generation = 0;
        std::uint16_t nodeId = 0xFFFF;
        std::vector<std::shared_ptr<Client>> clients;
        std::vector<std::pair<std::shared_ptr<Client>, Bytes>> held;
    };

    /// How a PHY misbehaves, whether or not it has a file now.
    struct Behaviour {
        bool mute = false;
        std::set<std::uint64_t> muteRegisters;
        std::chrono::milliseconds kernelTimeOut{2000};
        std::uint32_t rcode = 0;
        int rcodes = 0;
        std::size_t cutAt = ~std::size_t{0};
        bool holdsResets = false;
        bool phyMute = false;
        bool denied = false;
        bool broken = false;
        std::map<FileCall, std::function<void()>> inCall;
        std::map<std::uint64_t, unsigned int> requests;
    };

    struct Bus {
        std::string path;
        unsigned int card = 0;
        std::unique_ptr<FireWireModel> model;
        Platform::FireWireBusDescription description;
        std::uint8_t generation = 1;
        std::uint32_t resets = 0;
        std::map<std::string, Node> nodes;  // by PHY
    };

    // ---- What tests do; the lock is held ---------------------------------------------------------------------------

    void LoadDriver() { fs::create_directories(m_root / "sys/bus/firewire/devices"); }

    fs::path AddPciDevice(const std::string& pciName) {
        const fs::path directory = m_root / ("sys" + (PciBridge + pciName));
        fs::create_directories(directory);
        WriteFile(directory / "class", "0x0c0010\n");
        WriteFile(directory / "uevent", "PCI_CLASS=C0010\n");
        fs::create_symlink("../../.." + (PciBridge + pciName), m_root / "sys/bus/pci/devices" / pciName);
        return directory;
    }

    void AddBus(const Platform::FireWireBusDescription& description, const std::string& pciName) {
        LoadDriver();
        fs::create_symlink("../../../../bus/pci/drivers/firewire_ohci", AddPciDevice(pciName) / "driver");
        auto bus = std::make_unique<Bus>();
        bus->path = PciBridge + pciName;
        bus->card = m_numCards++;
        bus->description = description;
        bus->model = std::make_unique<FireWireModel>(description, bus->card);
        std::vector<const PhyDescription*> linked;
        for (const FireWireModel::Node& node : bus->model->Nodes()) {
            if (node.phy->kind != PhyKind::Repeater) {
                linked.push_back(node.phy);
            }
        }
        // The controller itself comes first.
        std::stable_partition(linked.begin(), linked.end(),
                              [](const PhyDescription* phy) { return phy->kind == PhyKind::Card; });
        Bus& added = *bus;
        m_buses.push_back(std::move(bus));
        for (const PhyDescription* phy : linked) {
            Announce(added, *phy);
        }
    }

    void RemoveBus(const std::string& pciName) {
        const auto found = std::find_if(m_buses.begin(), m_buses.end(),
                                        [&](const auto& bus) { return bus->path == PciBridge + pciName; });
        while (!(*found)->nodes.empty()) {
            Forget(**found, (*found)->nodes.begin()->first);
        }
        m_buses.erase(found);
        fs::remove(m_root / "sys/bus/pci/devices" / pciName);
        fs::remove_all(m_root / ("sys" + (PciBridge + pciName)));
    }

    Bus& BusOf(const std::string& phy) const {
        for (const auto& bus : m_buses) {
            if (bus->model->Has(phy)) {
                return *bus;
            }
        }
        throw std::invalid_argument("no PHY is called " + phy);
    }
    const PhyDescription& DescriptionOf(const std::string& phy) const {
        for (const PhyDescription& description : BusOf(phy).description.phys) {
            if (description.name == phy) {
                return description;
            }
        }
        throw std::invalid_argument("no PHY is called " + phy);
    }
    Node* FindNode(const std::string& phy) const {
        Bus& bus = BusOf(phy);
        const auto found = bus.nodes.find(phy);
        return found == bus.nodes.end() ? nullptr : &found->second;
    }

    /// The bus has been reset: who is still there has another generation, and perhaps another number.
    void BusWasReset(Bus& bus) {
        ++bus.generation;
        ++bus.resets;
        for (auto& [phy, node] : bus.nodes) {
            if (!Renumber(bus, node)) {
                continue;
            }
            for (const auto& client : node.clients) {
                if (!client->wantsResets) {
                    continue;
                }
                const Bytes event = ToBytes(BusReset(bus, node, client->resetClosure));
                if (m_behaviours[phy].holdsResets) {
                    node.held.emplace_back(client, event);
                } else {
                    Queue(*client, event);
                }
            }
        }
    }

    void Announce(Bus& bus, const PhyDescription& phy) {
        std::set<unsigned int> minors;
        for (const auto& other : m_buses) {
            for (const auto& [name, node] : other->nodes) {
                minors.insert(static_cast<unsigned int>(std::stoul(node.file.substr(2))));
            }
        }
        unsigned int minor = 0;
        while (minors.count(minor) != 0) {
            ++minor;
        }
        Node& node = bus.nodes[phy.name];
        node.phy = phy.name;
        node.description = &phy;
        node.file = "fw" + std::to_string(minor);
        node.directory = m_root / ("sys" + bus.path) / node.file;
        Renumber(bus, node);
        MakeDirectory(bus, node);
        MakeFile(node);
        SendUevent(node.directory, "add");
        if (HasUnit(node)) {
            SendUevent(node.directory / (node.file + ".0"), "add");
        }
    }

    void Forget(Bus& bus, const std::string& phy) {
        const auto found = bus.nodes.find(phy);
        if (found == bus.nodes.end()) {
            return;
        }
        const Node node = std::move(found->second);
        bus.nodes.erase(found);
        fs::remove(m_root / "dev" / node.file);
        const std::string unit = node.file + ".0";
        for (const auto& client : node.clients) {
            client->isDead = true;
            client->terminal->HangUp();
        }
        m_nextTerminals.erase(node.file);
        if (HasUnit(node)) {
            fs::remove(m_root / "sys/bus/firewire/devices" / unit);
            SendUevent(node.directory / unit, "remove");
        }
        fs::remove(m_root / "sys/bus/firewire/devices" / node.file);
        SendUevent(node.directory, "remove");
        fs::remove_all(node.directory);
    }

    void MakeFile(const Node& node) {
        const fs::path path = m_root / "dev" / node.file;
        if (m_behaviours[node.phy].denied) {
            fs::remove(path);
            WriteFile(path, "");
            ::chmod(path.c_str(), 0);
            return;
        }
        const auto terminal = std::make_shared<Terminal>();
        const fs::path fresh = path.string() + ".fresh";
        fs::create_symlink(terminal->GetName(), fresh);
        fs::rename(fresh, path);
        m_nextTerminals[node.file] = terminal;
        if (!m_attached.insert(node.file).second) {
            return;
        }
        // Once for all nodes that will have this name: detaching would end the programs that have it open.
        if (!umockdev_testbed_attach_ioctl(m_testbed, ("/dev/" + node.file).c_str(), m_handler, nullptr)) {
            Fail("a handler for " + node.file);
        }
    }

    void SendUevent(const fs::path& directory, const char* action) {
        umockdev_testbed_uevent(m_testbed, ("/" + directory.lexically_relative(m_root).string()).c_str(), action);
    }

    std::vector<std::uint32_t> RomOf(const PhyDescription& phy) const {
        const auto found = m_roms.find(phy.name);
        return found == m_roms.end() ? Platform::BuildConfigRom(phy) : found->second;
    }

    void WriteRom(const Node& node) const {
        const std::vector<std::uint32_t> rom = RomOf(*node.description);
        WriteFile(node.directory / "config_rom",
                  std::string(reinterpret_cast<const char*>(rom.data()), rom.size() * sizeof rom[0]));
    }

    // ---- Later -----------------------------------------------------------------------------------------------------

    void After(std::chrono::milliseconds time, std::function<void()> function) {
        m_later.emplace(Clock::now() + time, std::move(function));
        m_timerChanged.notify_all();
    }

    void Queue(Client& client, Bytes event) {
        if (client.isDead) {
            return;
        }
        client.events.push_back(std::move(event));
        client.terminal->Ring();
    }

    std::map<std::string, Behaviour> m_behaviours;  // by PHY
    std::map<std::string, std::vector<std::uint32_t>> m_roms;

private:
    bool HasUnit(const Node& node) const { return fs::exists(node.directory / (node.file + ".0")); }

    void MakeDirectory(const Bus& bus, const Node& node) {
        const bool isLocal = node.description->kind == PhyKind::Card;
        const bool isCamera = node.description->kind == PhyKind::Camera;
        fs::create_directories(node.directory);
        WriteFile(node.directory / "guid", Hex(node.description->eui64, 16) + "\n");
        WriteFile(node.directory / "is_local", isLocal ? "1\n" : "0\n");
        WriteFile(node.directory / "units", isCamera ? "0x00a02d:0x000102\n" : "");
        WriteRom(node);
        WriteFile(node.directory / "uevent",
                  "MAJOR=250\nMINOR=" + node.file.substr(2) + "\nDEVNAME=" + node.file + "\n");
        fs::create_symlink("../../../../../bus/firewire", node.directory / "subsystem");
        const std::string link = "../../.." + bus.path + "/" + node.file;
        fs::create_symlink(link, m_root / "sys/bus/firewire/devices" / node.file);
        if (!isCamera) {
            return;
        }
        const fs::path unit = node.directory / (node.file + ".0");
        fs::create_directories(unit);
        WriteFile(unit / "specifier_id", "0x00a02d\n");
        WriteFile(unit / "uevent", "MODALIAS=ieee1394:ven00001188mo00000000sp0000A02Dver00000102\n");
        fs::create_symlink("../../../../../../bus/firewire", unit / "subsystem");
        fs::create_symlink(link + "/" + node.file + ".0", m_root / "sys/bus/firewire/devices" / (node.file + ".0"));
    }

    /// @return false when it is not on the bus.
    static bool Renumber(const Bus& bus, Node& node) {
        const FireWireModel::Node* onBus = bus.model->FindNode(node.description->eui64);
        if (onBus == nullptr) {
            return false;
        }
        node.nodeId = static_cast<std::uint16_t>(0xFFC0 | onBus->phyId);
        node.generation = bus.generation;
        return true;
    }

    static std::uint32_t LocalId(const Bus& bus) {
        for (const FireWireModel::Node& node : bus.model->Nodes()) {
            if (node.phy->kind == PhyKind::Card) {
                return 0xFFC0 | node.phyId;
            }
        }
        return 0xFFFF;
    }

    static fw_cdev_event_bus_reset BusReset(const Bus& bus, const Node& node, std::uint64_t closure) {
        fw_cdev_event_bus_reset event{};
        event.closure = closure;
        event.type = FW_CDEV_EVENT_BUS_RESET;
        event.node_id = node.nodeId;
        event.local_node_id = LocalId(bus);
        event.bm_node_id = event.local_node_id;
        event.irm_node_id = event.local_node_id;
        event.root_node_id = 0xFFC0 | static_cast<std::uint32_t>(bus.model->Nodes().size() - 1);
        event.generation = node.generation;
        return event;
    }

    void RunTimer() {
        std::unique_lock lock(m_mutex);
        while (!m_ending) {
            if (m_later.empty()) {
                m_timerChanged.wait(lock);
            } else if (const auto next = m_later.begin(); next->first > Clock::now()) {
                m_timerChanged.wait_until(lock, next->first);
            } else {
                const std::function<void()> function = std::move(next->second);
                m_later.erase(next);
                function();
            }
        }
    }

    // ---- What programs do: on the mocking library's thread ---------------------------------------------------------

    static void OnOpen(UMockdevIoctlBase*, UMockdevIoctlClient* handle, gpointer self) {
        auto& state = *static_cast<State*>(self);
        const std::lock_guard lock(state.m_mutex);
        const std::string file = std::string(umockdev_ioctl_client_get_devnode(handle)).substr(sizeof("/dev/") - 1);
        const auto client = std::make_shared<Client>();
        const auto terminal = state.m_nextTerminals.find(file);
        if (terminal == state.m_nextTerminals.end()) {
            client->isDead = true;  // it left just now
        } else {
            client->terminal = terminal->second;
            for (const auto& bus : state.m_buses) {
                for (auto& [phy, node] : bus->nodes) {
                    if (node.file != file) {
                        continue;
                    }
                    client->phy = phy;
                    node.clients.push_back(client);
                    state.MakeFile(node);
                }
            }
        }
        state.m_clients[handle] = client;
    }

    static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* handle, gpointer self) {
        auto& state = *static_cast<State*>(self);
        const std::lock_guard lock(state.m_mutex);
        const auto found = state.m_clients.find(handle);
        if (found == state.m_clients.end()) {
            return FALSE;
        }
        const int error = state.Ioctl(*found->second, handle);
        umockdev_ioctl_client_complete(handle, error == 0 ? 0 : -1, error);
        return TRUE;
    }

    static gboolean OnRead(UMockdevIoctlBase*, UMockdevIoctlClient* handle, gpointer self) {
        auto& state = *static_cast<State*>(self);
        const std::lock_guard lock(state.m_mutex);
        const auto found = state.m_clients.find(handle);
        if (found == state.m_clients.end()) {
            return FALSE;
        }
        Client& client = *found->second;
        state.HappenNow(client, FileCall::Read);
        if (client.events.empty()) {
            umockdev_ioctl_client_complete(handle, -1, client.isDead ? ENODEV : EAGAIN);
            return TRUE;
        }
        Bytes event = std::move(client.events.front());
        client.events.pop_front();
        client.terminal->Unring();
        UMockdevIoctlData* const buffer = umockdev_ioctl_client_get_arg(handle);
        const int size = std::min(static_cast<int>(event.size()), buffer->data_len);
        umockdev_ioctl_data_update(buffer, 0, event.data(), size);
        umockdev_ioctl_client_complete(handle, size, 0);
        return TRUE;
    }

    /// A struct of the program, or what a pointer in one leads to. Changes go back when the call is completed.
    class Memory {
    public:
        Memory(UMockdevIoctlData* from, std::size_t offset, std::size_t size)
            : m_data(umockdev_ioctl_data_resolve(from, offset, size, nullptr)) {
            if (m_data == nullptr) {
                throw std::runtime_error("memory of the program cannot be read");
            }
        }
        ~Memory() { umockdev_ioctl_data_unref(m_data); }
        Memory(const Memory&) = delete;
        Memory& operator=(const Memory&) = delete;

        UMockdevIoctlData* Get() const { return m_data; }
        template <class T>
        T Load() const {
            T value;
            std::memcpy(&value, m_data->data, sizeof value);
            return value;
        }
        template <class T>
        void Store(std::size_t offset, T value) const {
            umockdev_ioctl_data_update(m_data, offset, reinterpret_cast<guint8*>(&value), sizeof value);
        }

    private:
        UMockdevIoctlData* const m_data;
    };

    void HappenNow(const Client& client, FileCall call) {
        if (client.isDead) {
            return;
        }
        const auto happens = m_behaviours[client.phy].inCall.extract(call);
        if (!happens.empty()) {
            happens.mapped()();
        }
    }

    int Ioctl(Client& client, UMockdevIoctlClient* handle) {
        static const std::map<unsigned long, FileCall> calls{
            {FW_CDEV_IOC_GET_INFO, FileCall::GetInfo},
            {FW_CDEV_IOC_SEND_REQUEST, FileCall::SendRequest},
            {FW_CDEV_IOC_INITIATE_BUS_RESET, FileCall::ResetBus},
            {FW_CDEV_IOC_RECEIVE_PHY_PACKETS, FileCall::ReceivePhyPackets},
            {FW_CDEV_IOC_SEND_PHY_PACKET, FileCall::SendPhyPacket}};
        const auto call = calls.find(umockdev_ioctl_client_get_request(handle));
        if (call == calls.end()) {
            return ENOTTY;
        }
        HappenNow(client, call->second);
        if (client.isDead) {
            return ENODEV;
        }
        if (m_behaviours[client.phy].broken) {
            return EIO;
        }
        Bus& bus = BusOf(client.phy);
        Node& node = bus.nodes.at(client.phy);
        UMockdevIoctlData* const argument = umockdev_ioctl_client_get_arg(handle);
        switch (call->second) {
            case FileCall::GetInfo:
                return GetInfo(bus, node, client, argument);
            case FileCall::SendRequest:
                return SendRequest(bus, node, client, argument);
            case FileCall::ResetBus: {
                Bus* const resetBus = &bus;
                const std::string phy = client.phy;
                // Some time after the call.
                After(std::chrono::milliseconds(1), [this, resetBus, phy] {
                    resetBus->model->Reset(phy);
                    BusWasReset(*resetBus);
                });
                return 0;
            }
            case FileCall::ReceivePhyPackets: {
                if (node.description->kind != PhyKind::Card) {
                    return ENOSYS;
                }
                const Memory request(argument, 0, sizeof(fw_cdev_receive_phy_packets));
                client.wantsPhyPackets = true;
                client.phyClosure = request.Load<fw_cdev_receive_phy_packets>().closure;
                return 0;
            }
            case FileCall::SendPhyPacket:
                if (node.description->kind != PhyKind::Card) {
                    return ENOSYS;
                }
                return SendPhyPacket(bus, client, argument);
            case FileCall::Read:
                break;
        }
        return ENOTTY;
    }

    int GetInfo(const Bus& bus, const Node& node, Client& client, UMockdevIoctlData* argument) {
        const Memory memory(argument, 0, sizeof(fw_cdev_get_info));
        const auto request = memory.Load<fw_cdev_get_info>();
        client.wantsResets = true;
        client.resetClosure = request.bus_reset_closure;
        std::vector<std::uint32_t> rom = RomOf(*node.description);
        const std::size_t romBytes = rom.size() * sizeof rom[0];
        if (request.rom != 0) {
            const std::size_t size = std::min<std::size_t>(request.rom_length, romBytes);
            const Memory buffer(memory.Get(), offsetof(fw_cdev_get_info, rom), request.rom_length);
            umockdev_ioctl_data_update(buffer.Get(), 0, reinterpret_cast<guint8*>(rom.data()), static_cast<int>(size));
        }
        if (request.bus_reset != 0) {
            constexpr std::size_t Copied = 36;
            const Memory buffer(memory.Get(), offsetof(fw_cdev_get_info, bus_reset), Copied);
            Bytes event = ToBytes(BusReset(bus, node, client.resetClosure), Copied);
            umockdev_ioctl_data_update(buffer.Get(), 0, event.data(), Copied);
        }
        memory.Store(offsetof(fw_cdev_get_info, version), std::uint32_t{5});
        memory.Store(offsetof(fw_cdev_get_info, rom_length), static_cast<std::uint32_t>(romBytes));
        memory.Store(offsetof(fw_cdev_get_info, card), std::uint32_t{bus.card});
        return 0;
    }

    static Bytes Response(std::uint64_t closure, std::uint32_t rcode, const Bytes& payload) {
        constexpr std::size_t Data = offsetof(fw_cdev_event_response, data);
        fw_cdev_event_response head{};
        head.closure = closure;
        head.type = FW_CDEV_EVENT_RESPONSE;
        head.rcode = rcode;
        head.length = static_cast<std::uint32_t>(payload.size());
        Bytes event = ToBytes(head);
        const std::size_t padding = event.size() - Data;
        event.resize(event.size() + payload.size());
        std::copy(payload.begin(), payload.end(), event.begin() + Data);
        // A short payload is there twice, for programs that look behind the padding.
        if (payload.size() <= padding) {
            std::copy(payload.begin(), payload.end(), event.end() - static_cast<std::ptrdiff_t>(payload.size()));
        }
        return event;
    }

    int SendRequest(Bus& bus, const Node& node, Client& client, UMockdevIoctlData* argument) {
        const Memory memory(argument, 0, sizeof(fw_cdev_send_request));
        const auto request = memory.Load<fw_cdev_send_request>();
        const bool isWrite = request.tcode == TCODE_WRITE_QUADLET_REQUEST;
        if (!isWrite && request.tcode != TCODE_READ_QUADLET_REQUEST && request.tcode != TCODE_READ_BLOCK_REQUEST) {
            return EINVAL;
        }
        if (request.length > 4096) {
            return EIO;
        }
        if (isWrite && request.length < 4) {
            return EINVAL;
        }
        std::uint32_t value = 0;
        if (isWrite) {
            const Memory payload(memory.Get(), offsetof(fw_cdev_send_request, data), request.length);
            value = be32toh(payload.Load<std::uint32_t>());
        }
        Bytes payload;
        std::chrono::milliseconds late{0};
        const std::uint32_t rcode = Transact(bus, node, request, value, &payload, &late);
        const Bytes event = Response(request.closure, rcode, payload);
        if (late.count() == 0) {
            Queue(client, event);
        } else {
            for (const auto& [handle, other] : m_clients) {
                if (other.get() == &client) {
                    After(late, [this, other = other, event] { Queue(*other, event); });
                }
            }
        }
        return 0;
    }

    /// The kernel sends to the number that the node has or had, whoever has it now.
    std::uint32_t Transact(Bus& bus, const Node& from, const fw_cdev_send_request& request, std::uint32_t value,
                           Bytes* payload, std::chrono::milliseconds* late) {
        if (request.generation != bus.generation) {
            return RCODE_GENERATION;
        }
        const PhyDescription* target = nullptr;
        for (const FireWireModel::Node& node : bus.model->Nodes()) {
            if (node.phyId == (from.nodeId & 0x3FU) && node.phy->kind != PhyKind::Repeater) {
                target = node.phy;
            }
        }
        if (target == nullptr) {
            return RCODE_NO_ACK;
        }
        Behaviour& behaviour = m_behaviours[target->name];
        ++behaviour.requests[request.offset];
        if (behaviour.mute || behaviour.muteRegisters.count(request.offset) != 0) {
            *late = behaviour.kernelTimeOut;
            return RCODE_CANCELLED;
        }
        if (behaviour.rcodes > 0) {
            --behaviour.rcodes;
            return behaviour.rcode;
        }
        const std::uint32_t rcode = request.tcode == TCODE_WRITE_QUADLET_REQUEST
                                        ? Write(bus, *target, request.offset, value)
                                        : Read(bus, *target, request, payload);
        if (payload->size() > behaviour.cutAt) {
            payload->resize(behaviour.cutAt);
        }
        return rcode;
    }

    std::uint32_t Read(const Bus& bus, const PhyDescription& phy, const fw_cdev_send_request& request,
                       Bytes* payload) const {
        if (phy.kind == PhyKind::Card && request.offset == TopologyMapOffset) {
            *payload = TopologyMap(bus);
            payload->resize(request.length);
            return RCODE_COMPLETE;
        }
        std::uint32_t value = 0;
        const std::vector<std::uint32_t> rom = RomOf(phy);
        if (request.offset == StateClearOffset) {
            value = phy.kind == PhyKind::Card && bus.model->Nodes().back().phy->name == phy.name ? CycleMaster : 0;
        } else if (request.offset >= RomOffset && request.offset < RomOffset + 4 * rom.size()) {
            value = rom[(request.offset - RomOffset) / 4];
        } else if (bus.model->ReadQuadlet(phy.eui64, request.offset, &value) != HAL_OK) {
            return RCODE_ADDRESS_ERROR;
        }
        *payload = InBusOrder(value);
        return RCODE_COMPLETE;
    }

    static std::uint32_t Write(const Bus& bus, const PhyDescription& phy, std::uint64_t offset, std::uint32_t value) {
        switch (bus.model->WriteQuadlet(phy.eui64, offset, value)) {
            case HAL_OK:
                return RCODE_COMPLETE;
            case HAL_WRITE_PROTECTED:
                return RCODE_TYPE_ERROR;
            default:
                return RCODE_ADDRESS_ERROR;
        }
    }

    static Bytes TopologyMap(const Bus& bus) {
        const std::vector<SelfIdPacket_t>& selfIds = bus.model->SelfIds();
        const auto count = static_cast<std::uint32_t>(selfIds.size());
        Bytes map;
        for (const std::uint32_t head :
             {(count + 2) << 16, bus.resets, static_cast<std::uint32_t>(bus.model->Nodes().size()) << 16 | count}) {
            const Bytes quadlet = InBusOrder(head);
            map.insert(map.end(), quadlet.begin(), quadlet.end());
        }
        for (const SelfIdPacket_t& packet : selfIds) {
            map.insert(map.end(), packet.bytes, packet.bytes + 4);
        }
        return map;
    }

    static Bytes PhyPacket(std::uint32_t type, std::uint64_t closure, std::uint32_t rcode,
                           const std::vector<std::uint32_t>& quadlets) {
        fw_cdev_event_phy_packet head{};
        head.closure = closure;
        head.type = type;
        head.rcode = rcode;
        head.length = static_cast<std::uint32_t>(4 * quadlets.size());
        Bytes event = ToBytes(head);
        event.resize(offsetof(fw_cdev_event_phy_packet, data));
        for (const std::uint32_t quadlet : quadlets) {
            const Bytes bytes = ToBytes(quadlet);
            event.insert(event.end(), bytes.begin(), bytes.end());
        }
        event.resize(std::max(event.size() + 4, sizeof head));
        return event;
    }

    int SendPhyPacket(Bus& bus, Client& client, UMockdevIoctlData* argument) {
        const Memory memory(argument, 0, sizeof(fw_cdev_send_phy_packet));
        const auto request = memory.Load<fw_cdev_send_phy_packet>();
        const std::uint32_t quadlet = request.data[0];
        const bool isCurrent = request.generation == bus.generation && request.data[1] == ~quadlet;
        Queue(client, PhyPacket(FW_CDEV_EVENT_PHY_PACKET_SENT, request.closure,
                                isCurrent ? RCODE_COMPLETE : RCODE_GENERATION, {}));
        if (!isCurrent) {
            return 0;
        }
        const std::uint32_t type = quadlet >> 18 & 0xF;
        const std::uint32_t phyId = quadlet >> 24 & 0x3F;
        const bool isPaged = type == 5;
        if ((!isPaged && type != 1) || phyId >= bus.model->Nodes().size()) {
            return 0;
        }
        const PhyDescription& phy = *bus.model->Nodes()[phyId].phy;
        if (m_behaviours[phy.name].phyMute) {
            return 0;
        }
        const std::uint32_t page = isPaged ? quadlet >> 15 & 7 : 0;
        const std::uint32_t port = isPaged ? quadlet >> 11 & 15 : 0;
        const std::uint32_t address = (quadlet >> 8 & 7) + (isPaged ? 8 : 0);
        std::uint32_t value = 0;
        if (bus.model->ReadPhy(phy.eui64, page, port, address, &value) != HAL_OK) {
            return 0;
        }
        const std::uint32_t reply = (quadlet & ~(0xFU << 18) & ~0xFFU) | (type + 2) << 18 | value;
        for (const auto& [handle, other] : m_clients) {
            if (!other->wantsPhyPackets || &BusOf(other->phy) != &bus) {
                continue;
            }
            Queue(*other,
                  PhyPacket(FW_CDEV_EVENT_PHY_PACKET_RECEIVED, other->phyClosure, RCODE_COMPLETE, {reply, ~reply}));
        }
        return 0;
    }

    UMockdevTestbed* const m_testbed;
    UMockdevIoctlBase* const m_handler;
    fs::path m_root;

    mutable std::mutex m_mutex;
    std::vector<std::unique_ptr<Bus>> m_buses;
    unsigned int m_numCards = 0;
    std::map<UMockdevIoctlClient*, std::shared_ptr<Client>> m_clients;
    std::map<std::string, std::shared_ptr<Terminal>> m_nextTerminals;  // by file
    std::set<std::string> m_attached;
    std::multimap<Clock::time_point, std::function<void()>> m_later;
    std::condition_variable m_timerChanged;
    bool m_ending = false;
    std::thread m_timer;
};

EmulatedFireWire::EmulatedFireWire() : m_state(std::make_unique<State>()) {}

EmulatedFireWire::~EmulatedFireWire() = default;

std::vector<std::string> EmulatedFireWire::GetEnvironment() const {
    return {"LD_PRELOAD=libumockdev-preload.so.0", "UMOCKDEV_DIR=" + m_state->GetRoot().string()};
}

void EmulatedFireWire::LoadDriver() {
    const auto lock = m_state->Lock();
    m_state->LoadDriver();
}

void EmulatedFireWire::AddIdleController(const std::string& pciName) {
    const auto lock = m_state->Lock();
    m_state->AddPciDevice(pciName);
}

void EmulatedFireWire::AddBus(const Platform::FireWireBusDescription& bus, const std::string& pciName) {
    const auto lock = m_state->Lock();
    m_state->AddBus(bus, pciName);
}

void EmulatedFireWire::RemoveBus(const std::string& pciName) {
    const auto lock = m_state->Lock();
    m_state->RemoveBus(pciName);
}

void EmulatedFireWire::Plug(const std::string& phy) {
    PlugUnannounced(phy);
    Announce(phy);
}

void EmulatedFireWire::PlugUnannounced(const std::string& phy) {
    const auto lock = m_state->Lock();
    State::Bus& bus = m_state->BusOf(phy);
    if (bus.model->Plug(phy)) {
        m_state->BusWasReset(bus);
    }
}

void EmulatedFireWire::Announce(const std::string& phy) {
    const auto lock = m_state->Lock();
    const PhyDescription& description = m_state->DescriptionOf(phy);
    if (m_state->FindNode(phy) == nullptr && description.kind != PhyKind::Repeater) {
        m_state->Announce(m_state->BusOf(phy), description);
    }
}

void EmulatedFireWire::Unplug(const std::string& phy) {
    const auto lock = m_state->Lock();
    State::Bus& bus = m_state->BusOf(phy);
    if (bus.model->Unplug(phy)) {
        m_state->BusWasReset(bus);
    }
}

void EmulatedFireWire::Forget(const std::string& phy) {
    const auto lock = m_state->Lock();
    m_state->Forget(m_state->BusOf(phy), phy);
}

void EmulatedFireWire::Reset(const std::string& phy) {
    const auto lock = m_state->Lock();
    State::Bus& bus = m_state->BusOf(phy);
    bus.model->Reset(phy);
    m_state->BusWasReset(bus);
}

void EmulatedFireWire::ResetAndCountAnew(const std::string& phy) {
    const auto lock = m_state->Lock();
    State::Bus& bus = m_state->BusOf(phy);
    bus.model->Reset(phy);
    bus.generation = 0;
    m_state->BusWasReset(bus);
}

unsigned int EmulatedFireWire::CountResets(const std::string& phy) const {
    const auto lock = m_state->Lock();
    return m_state->BusOf(phy).resets;
}

void EmulatedFireWire::SetMute(const std::string& phy, bool mute, std::chrono::milliseconds kernelTimeOut) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].mute = mute;
    m_state->m_behaviours[phy].kernelTimeOut = kernelTimeOut;
}

void EmulatedFireWire::SetRegisterMute(const std::string& phy, std::uint64_t offset, bool mute,
                                       std::chrono::milliseconds kernelTimeOut) {
    const auto lock = m_state->Lock();
    State::Behaviour& behaviour = m_state->m_behaviours[phy];
    behaviour.kernelTimeOut = kernelTimeOut;
    if (mute) {
        behaviour.muteRegisters.insert(offset);
    } else {
        behaviour.muteRegisters.erase(offset);
    }
}

void EmulatedFireWire::AnswerWith(const std::string& phy, std::uint32_t rcode, int count) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].rcode = rcode;
    m_state->m_behaviours[phy].rcodes = count;
}

void EmulatedFireWire::CutAnswers(const std::string& phy, std::size_t octets) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].cutAt = octets;
}

void EmulatedFireWire::HoldResetEvents(const std::string& phy, bool hold) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].holdsResets = hold;
    State::Node* node = m_state->FindNode(phy);
    if (hold || node == nullptr) {
        return;
    }
    for (auto& [client, event] : node->held) {
        m_state->Queue(*client, event);
    }
    node->held.clear();
}

void EmulatedFireWire::SetPhyMute(const std::string& phy, bool mute) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].phyMute = mute;
}

void EmulatedFireWire::VanishIn(const std::string& phy, FileCall call) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].inCall[call] = [state = m_state.get(), phy] {
        State::Bus& bus = state->BusOf(phy);
        if (bus.model->Unplug(phy)) {
            state->BusWasReset(bus);
        }
        state->Forget(bus, phy);
    };
}

void EmulatedFireWire::ResetIn(const std::string& phy, FileCall call) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].inCall[call] = [state = m_state.get(), phy] {
        State::Bus& bus = state->BusOf(phy);
        bus.model->Reset(phy);
        state->BusWasReset(bus);
    };
}

void EmulatedFireWire::Deny(const std::string& phy) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].denied = true;
    if (const State::Node* node = m_state->FindNode(phy)) {
        m_state->MakeFile(*node);
    }
}

void EmulatedFireWire::Break(const std::string& phy) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].broken = true;
}

void EmulatedFireWire::Allow(const std::string& phy) {
    const auto lock = m_state->Lock();
    m_state->m_behaviours[phy].denied = false;
    if (const State::Node* node = m_state->FindNode(phy)) {
        m_state->MakeFile(*node);
    }
}

void EmulatedFireWire::SendChangeUevent(const std::string& phy) {
    const auto lock = m_state->Lock();
    if (const State::Node* node = m_state->FindNode(phy)) {
        m_state->SendUevent(node->directory, "change");
    }
}

std::uint32_t EmulatedFireWire::GetRegister(const std::string& phy, std::uint64_t offset) const {
    const auto lock = m_state->Lock();
    std::uint32_t value = 0;
    m_state->BusOf(phy).model->ReadQuadlet(m_state->DescriptionOf(phy).eui64, offset, &value);
    return value;
}

void EmulatedFireWire::SetRegister(const std::string& phy, std::uint64_t offset, std::uint32_t value) {
    const auto lock = m_state->Lock();
    m_state->BusOf(phy).model->WriteQuadlet(m_state->DescriptionOf(phy).eui64, offset, value);
}

void EmulatedFireWire::SetRom(const std::string& phy, std::vector<std::uint32_t> rom) {
    const auto lock = m_state->Lock();
    m_state->m_roms[phy] = std::move(rom);
}

void EmulatedFireWire::ChangeRom(const std::string& phy, std::vector<std::uint32_t> rom) {
    SetRom(phy, std::move(rom));
    const auto lock = m_state->Lock();
    const State::Node* node = m_state->FindNode(phy);
    if (node == nullptr) {
        return;
    }
    m_state->WriteRom(*node);
    m_state->SendUevent(node->directory, "change");
}

unsigned int EmulatedFireWire::CountRequests(const std::string& phy, std::uint64_t offset) const {
    const auto lock = m_state->Lock();
    return m_state->m_behaviours[phy].requests[offset];
}

// The mocking library does not tell of a file that is closed. Each open one of this process is a link in /proc.
unsigned int EmulatedFireWire::CountClients(const std::string& phy) const {
    const auto lock = m_state->Lock();
    const State::Node* node = m_state->FindNode(phy);
    if (node == nullptr) {
        return 0;
    }
    unsigned int count = 0;
    for (const auto& client : node->clients) {
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (fs::read_symlink(entry.path(), error) == client->terminal->GetName()) {
                ++count;
            }
        }
        --count;  // our own side of it
    }
    return count;
}

bool EmulatedFireWire::HasBeenOpened(const std::string& phy) const {
    const auto lock = m_state->Lock();
    const State::Node* node = m_state->FindNode(phy);
    return node != nullptr && !node->clients.empty();
}

std::string EmulatedFireWire::GetFileName(const std::string& phy) const {
    const auto lock = m_state->Lock();
    const State::Node* node = m_state->FindNode(phy);
    return node == nullptr ? std::string() : node->file;
}

unsigned int EmulatedFireWire::GetPhyId(const std::string& phy) const {
    const auto lock = m_state->Lock();
    for (const FireWireModel::Node& node : m_state->BusOf(phy).model->Nodes()) {
        if (node.phy->name == phy) {
            return node.phyId;
        }
    }
    return 63;
}

namespace {

void GetCapabilities(__user_cap_header_struct* header, __user_cap_data_struct (&data)[2]) {
    *header = {_LINUX_CAPABILITY_VERSION_3, 0};
    if (::syscall(SYS_capget, header, data) != 0) {
        Fail("capabilities");
    }
}

}  // namespace

NoPermissionOverride::NoPermissionOverride() {
    __user_cap_header_struct header;
    __user_cap_data_struct data[2];
    GetCapabilities(&header, data);
    for (int i = 0; i < 2; ++i) {
        m_effective[i] = data[i].effective;
    }
    data[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
    if (::syscall(SYS_capset, &header, data) != 0) {
        Fail("capabilities");
    }
}

NoPermissionOverride::~NoPermissionOverride() {
    __user_cap_header_struct header;
    __user_cap_data_struct data[2];
    GetCapabilities(&header, data);
    for (int i = 0; i < 2; ++i) {
        data[i].effective = m_effective[i];
    }
    ::syscall(SYS_capset, &header, data);
}

}  // namespace Nimbrel2::Testing
