// SPDX-License-Identifier: Apache-2.0
// What the GigE driver's tests share.
#include "tests/platform/gige/GigEFixture.h"

#include <arpa/inet.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <system_error>

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Testing {

using Platform::Gvcp::DecodedAcknowledge;
using Platform::Gvcp::DecodeError;
using Platform::Gvcp::Packet;

// ---- RecordingSink -------------------------------------------------------------------------------------------------

void RecordingSink::Report(Platform::BusState state) noexcept {
    std::lock_guard lock(m_mutex);
    m_news.Report(std::move(state), [this](HALBusEvent event, std::uint32_t first, std::uint32_t second) {
        if (m_listed) {
            Count(event, first, second);
        }
    });
    m_changed.notify_all();
}

void RecordingSink::Listed(Platform::BusState state) {
    std::lock_guard lock(m_mutex);
    if (m_listed) {
        return;
    }
    m_listed = true;
    m_news.Listed(Platform::BusNews::Listing::Cameras, std::move(state));
    m_news.RaiseUnseen(
        [this](HALBusEvent event, std::uint32_t first, std::uint32_t second) { Count(event, first, second); });
    m_changed.notify_all();
}

void RecordingSink::Count(HALBusEvent event, std::uint32_t first, std::uint32_t second) {
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(second, 0u);
    if (event == HAL_BUS_RESET) {
        ++m_counts.resets;
    }
    if (event == HAL_BUS_ARRIVAL) {
        ++m_counts.arrivals;
    }
    if (event == HAL_BUS_REMOVAL) {
        ++m_counts.removals;
    }
}

RecordingSink::Counts RecordingSink::GetCounts() const {
    std::lock_guard lock(m_mutex);
    return m_counts;
}

bool RecordingSink::WaitFor(const std::function<bool(const Counts&)>& condition, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return condition(m_counts); });
}

std::ostream& operator<<(std::ostream& out, const RecordingSink::Counts& counts) {
    return out << counts.resets << " resets, " << counts.arrivals << " arrivals, " << counts.removals << " removals";
}

std::uint32_t Ip(const std::string& text) { return ntohl(inet_addr(text.c_str())); }

std::string NameOf(const GvcpDiscoveryRecord& record) {
    return Platform::GigE::SerialTextOf(record) + "@" + Platform::FormatIp(record.ipAddress);
}

std::chrono::milliseconds Since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

// ---- RawGvcp -------------------------------------------------------------------------------------------------------

RawGvcp::RawGvcp(NetworkNamespace& network) {
    network.Run([&] { m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    sockaddr_in any{};
    any.sin_family = AF_INET;
    EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
}

RawGvcp::~RawGvcp() { close(m_socket); }

std::uint16_t RawGvcp::GetLocalPort() const {
    sockaddr_in local{};
    socklen_t size = sizeof local;
    EXPECT_EQ(getsockname(m_socket, reinterpret_cast<sockaddr*>(&local), &size), 0);
    return ntohs(local.sin_port);
}

bool RawGvcp::Ask(const std::string& ip, const Packet& packet, DecodedAcknowledge* answer,
                  std::chrono::milliseconds timeout) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = inet_addr(ip.c_str());
    to.sin_port = htons(Platform::Gvcp::Port);
    sendto(m_socket, packet.GetData(), packet.GetSize(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    const auto deadline = Clock::now() + timeout;
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd wait{m_socket, POLLIN, 0};
        if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        const ssize_t size = recv(m_socket, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
        if (size < 0) {
            continue;
        }
        *answer = Platform::Gvcp::DecodeAcknowledge({m_buffer.data(), static_cast<std::size_t>(size)});
        if (answer->error == DecodeError::None && answer->header.ackId == m_id) {
            return true;
        }
    }
}

bool RawGvcp::WaitForAnswer(const std::string& ip, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    DecodedAcknowledge answer;
    while (Clock::now() < deadline) {
        if (Ask(ip, Platform::Gvcp::EncodeDiscoveryCommand(++m_id, 1), &answer, 20ms)) {
            return true;
        }
    }
    return false;
}

bool RawGvcp::Write(const std::string& ip, std::uint32_t address, std::uint32_t value) {
    const Platform::Gvcp::RegisterWrite write{address, value};
    DecodedAcknowledge answer;
    return Ask(ip, Platform::Gvcp::EncodeWriteRegCommand(++m_id, {&write, 1}), &answer, 1s);
}

bool RawGvcp::Read(const std::string& ip, std::uint32_t address, std::uint32_t* value) {
    DecodedAcknowledge answer;
    if (!Ask(ip, Platform::Gvcp::EncodeReadRegCommand(++m_id, {&address, 1}), &answer, 1s)) {
        return false;
    }
    const auto* read = std::get_if<Platform::Gvcp::ReadRegAcknowledge>(&answer.body);
    if (read == nullptr) {
        return false;
    }
    *value = read->values[0];
    return true;
}

// ---- IndependentCamera ---------------------------------------------------------------------------------------------

IndependentCamera::IndependentCamera(NetworkNamespace& network, const std::string& ip, const std::string& serial)
    : m_network(network), m_ip(ip) {
    m_process = network.StartProgram({"arv-fake-gv-camera-0.8", "-i", ip, "-s", serial});
    EXPECT_TRUE(RawGvcp(network).WaitForAnswer(ip, 10s)) << ip;
}

void IndependentCamera::SetMac(std::uint64_t mac) {
    RawGvcp raw(m_network);
    EXPECT_TRUE(raw.Write(m_ip, 0x8, static_cast<std::uint32_t>(mac >> 32)));
    EXPECT_TRUE(raw.Write(m_ip, 0xC, static_cast<std::uint32_t>(mac)));
}

void IndependentCamera::Kill() {
    m_process->Signal(SIGKILL);
    m_process->WaitForExit(10s);
}

void IndependentCamera::Pause() { m_process->Signal(SIGSTOP); }

void IndependentCamera::Continue() { m_process->Signal(SIGCONT); }

// ---- GigETest ------------------------------------------------------------------------------------------------------

GigETest::~GigETest() { Stop(); }

void GigETest::Start(const std::vector<std::string>& interfaces) {
    Platform::LinuxGigEOptions options;
    options.networkInterfaces = interfaces;
    StartWith(options);
}

void GigETest::StartWith(const Platform::LinuxGigEOptions& options) {
    Platform::LinuxGigEOptions withWindow = options;
    withWindow.discoveryWindow = m_window;
    m_bus = Platform::MakeLinuxGigEBus(withWindow, m_sink);
    m_host.Run([&] { ASSERT_EQ(m_bus->Start(), HAL_OK); });
}

std::uint32_t GigETest::StartAfter(const std::function<void()>& setUp) {
    Platform::LinuxGigEOptions options;
    options.discoveryWindow = m_window;
    m_bus = Platform::MakeLinuxGigEBus(options, m_sink);
    std::uint32_t status = HAL_FAILED;
    m_host
        .StartThread([&] {
            setUp();
            status = m_bus->Start();
        })
        .join();
    return status;
}

void DropCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2]{};
    ASSERT_EQ(syscall(SYS_capset, &header, none), 0) << std::generic_category().message(errno);
}

void GigETest::Stop() {
    if (m_bus) {
        m_bus->Stop();
    }
}

void GigETest::AddLoopbackAddresses(int count) {
    for (int i = 2; i <= count; ++i) {
        m_host.Ip("addr add 127.0.0." + std::to_string(i) + "/8 dev lo");
    }
}

std::vector<std::shared_ptr<Platform::GigEDevice>> GigETest::List() {
    Platform::Listing<Platform::GigEDevice> cameras;
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_OK);
    m_sink.Listed(std::move(cameras.state));
    return std::move(cameras.devices);
}

std::vector<GvcpDiscoveryRecord> GigETest::ListRecords() {
    std::vector<GvcpDiscoveryRecord> records;
    for (const auto& camera : List()) {
        GvcpDiscoveryRecord record{};
        EXPECT_EQ(camera->GetRecord(&record), HAL_OK);
        records.push_back(record);
    }
    return records;
}

std::vector<std::string> GigETest::ListNames() {
    std::vector<std::string> names;
    for (const GvcpDiscoveryRecord& record : ListRecords()) {
        names.push_back(NameOf(record));
    }
    return names;
}

std::vector<std::string> GigETest::DiscoverNames() {
    std::vector<GvcpDiscoveryRecord> records;
    // Inside: it opens sockets of its own where a filter is in force.
    m_host.Run([&] { EXPECT_EQ(Discover(&records), HAL_OK); });
    std::vector<std::string> names;
    for (const GvcpDiscoveryRecord& record : records) {
        names.push_back(NameOf(record));
    }
    return names;
}

std::uint32_t GigETest::Discover(std::vector<GvcpDiscoveryRecord>* records) {
    Platform::GigEDiscovery discovery;
    const std::uint32_t status = m_bus->Discover(std::nullopt, &discovery);
    records->clear();
    for (const Platform::CameraDiagnosis& camera : discovery.cameras) {
        records->push_back(camera.record);
    }
    return status;
}

std::uint32_t GigETest::ForceIp(std::uint64_t mac, std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway) {
    Platform::ForceIpResult result;
    return m_bus->ForceAddress({mac, ip, mask, gateway}, &result);
}

std::uint32_t GigETest::AutoForceIp(std::optional<std::uint32_t> serialNumber) {
    std::vector<Platform::AddressPlan> plans;
    const std::uint32_t status = m_bus->PlanAddresses(serialNumber, &plans);
    return status == HAL_OK ? m_bus->ApplyAddresses(&plans) : status;
}

// ---- GigEWireTest --------------------------------------------------------------------------------------------------

std::unique_ptr<Platform::Simulated::SimulatedGigENetwork> MakeCameras(NetworkNamespace& network) {
    std::unique_ptr<Platform::Simulated::SimulatedGigENetwork> cameras;
    network.Run([&] { cameras = std::make_unique<Platform::Simulated::SimulatedGigENetwork>(); });
    return cameras;
}

GigEWireTest::GigEWireTest() {
    Connect(m_host, "h0", m_wire, "c0");
    m_host.Ip("addr add 192.168.77.1/24 dev h0");
    m_wire.Ip("addr add 192.168.77.100/24 dev c0");
    m_cameras = MakeCameras(m_wire);
}

GigEWireTest::~GigEWireTest() {
    if (m_driver) {
        m_driver->Stop();
    }
}

void GigEWireTest::StartDriver(Platform::GigE::Timings timings) {
    Platform::GigE::DriverOptions options;
    options.timings = timings;
    m_driver = std::make_shared<Platform::GigE::GigEDriver>(options, m_sink);
    m_host.Run([&] { ASSERT_EQ(m_driver->Start(), HAL_OK); });
    ASSERT_EQ(ListOfDriver(), HAL_OK);
}

std::uint32_t GigEWireTest::ListOfDriver() {
    Platform::BusState state;
    m_listed.clear();
    const std::uint32_t status = m_driver->ListCameras(&m_listed, &state);
    if (status == HAL_OK) {
        m_sink.Listed(std::move(state));
    }
    return status;
}

void GigEWireTest::StartDriver() {
    Platform::GigE::Timings timings;
    timings.discoveryWindow = m_window;
    StartDriver(timings);
}

void GigEWireTest::ConnectToo(NetworkNamespace& computer) {
    m_wire.Ip("addr flush dev c0");
    m_wire.Ip("link add br0 type bridge");
    m_wire.Ip("link set br0 up");
    m_wire.Ip("link set c0 master br0");
    Connect(m_wire, "c1", computer, "e0");
    m_wire.Ip("link set c1 master br0");
}

Platform::Simulated::SimulatedCameraOptions GigEWireTest::CameraOptions(const std::string& ip, std::uint64_t mac) {
    Platform::Simulated::SimulatedCameraOptions options;
    options.interfaceName = "c0";
    options.address = Ip(ip);
    options.subnetMask = 0xFFFFFF00;
    options.mac = 0x020000000000 + mac;
    options.serialNumber = std::to_string(mac);
    return options;
}

Platform::Simulated::SimulatedGigENetwork::CameraId GigEWireTest::AddCamera(
    const Platform::Simulated::SimulatedCameraOptions& options) {
    const auto added = m_cameras->AddCamera(options);
    EXPECT_TRUE(added) << added.reason;
    return added.id;
}

Platform::Simulated::SimulatedGigENetwork::CameraId GigEWireTest::AddCamera(const std::string& ip, std::uint64_t mac) {
    return AddCamera(CameraOptions(ip, mac));
}

::testing::AssertionResult GigEWireTest::WaitForNames(const std::vector<std::string>& names,
                                                      std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    int resets = m_sink.GetCounts().resets;
    std::vector<std::string> listed = ListNames();
    while (listed != names) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return ::testing::AssertionFailure() << "listed are " << ::testing::PrintToString(listed);
        }
        m_sink.WaitFor([&](const auto& counts) { return counts.resets > resets; }, left);
        resets = m_sink.GetCounts().resets;
        listed = ListNames();
    }
    return ::testing::AssertionSuccess();
}

}  // namespace Nimbrel2::Testing
