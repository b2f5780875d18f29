// SPDX-License-Identifier: Apache-2.0
// What the GigE driver's tests share: a driver inside a network namespace, what it raised, and independent cameras.
#ifndef NIMBREL2_TESTS_PLATFORM_GIGE_GIGEFIXTURE_H
#define NIMBREL2_TESTS_PLATFORM_GIGE_GIGEFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Texts.h"
#include "platform/hal/BusNews.h"
#include "platform/linux/gige/CameraKey.h"
#include "platform/linux/gige/GigEDriver.h"
#include "platform/linux/gige/LinuxGigEBus.h"
#include "platform/simulated/SimulatedGigENetwork.h"
#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Testing {

using namespace std::chrono_literals;

/// Counts what becomes of a driver's reports: what a registration that came after the first listing is told.
class RecordingSink : public Platform::BusEventSink {
public:
    struct Counts {
        int resets = 0;
        int arrivals = 0;
        int removals = 0;
        bool operator==(const Counts&) const = default;
    };

    void Report(Platform::BusState state) noexcept override;
    void RaiseError() noexcept override {}
    /// From here on it counts.
    void Listed(Platform::BusState state);

    Counts GetCounts() const;

    /// Waits until the counts satisfy the condition. @return whether they do.
    bool WaitFor(const std::function<bool(const Counts&)>& condition, std::chrono::milliseconds timeout);

private:
    void Count(HALBusEvent event, std::uint32_t first, std::uint32_t second);  // m_mutex is held

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    Platform::BusNews m_news;
    bool m_listed = false;
    Counts m_counts;
};

std::ostream& operator<<(std::ostream& out, const RecordingSink::Counts& counts);

/// 127.0.0.1 as a number, first octet in the most significant byte.
std::uint32_t Ip(const std::string& text);

/// A UDP socket inside a namespace that speaks to cameras by itself, without the driver.
class RawGvcp {
public:
    explicit RawGvcp(NetworkNamespace& network);
    ~RawGvcp();
    RawGvcp(const RawGvcp&) = delete;
    RawGvcp& operator=(const RawGvcp&) = delete;

    /// Asks an address by DISCOVERY, again and again, until it answers.
    bool WaitForAnswer(const std::string& ip, std::chrono::milliseconds timeout);

    /// Writes one register and waits for its acknowledge.
    bool Write(const std::string& ip, std::uint32_t address, std::uint32_t value);
    bool Read(const std::string& ip, std::uint32_t address, std::uint32_t* value);

    std::uint16_t GetLocalPort() const;

private:
    bool Ask(const std::string& ip, const Platform::Gvcp::Packet& packet, Platform::Gvcp::DecodedAcknowledge* answer,
             std::chrono::milliseconds timeout);

    int m_socket = -1;
    std::uint16_t m_id = 0;
    std::array<std::uint8_t, 2048> m_buffer{};
};

/// One arv-fake-gv-camera, which has answered once when the constructor returns.
class IndependentCamera {
public:
    IndependentCamera(NetworkNamespace& network, const std::string& ip, const std::string& serial);

    /// Gives it a MAC address, which it does not have by itself.
    void SetMac(std::uint64_t mac);

    /// Kills it and waits for its end.
    void Kill();

    /// Stops it, and lets it go on: alive, but without an answer.
    void Pause();
    void Continue();

private:
    NetworkNamespace& m_network;
    const std::string m_ip;
    std::unique_ptr<ChildProcess> m_process;
};

/// A namespace with a driver in it, on loopback unless told otherwise.
class GigETest : public ::testing::Test {
protected:
    ~GigETest() override;

    /// Makes the driver and starts it, inside m_host.
    void Start(const std::vector<std::string>& interfaces);
    void StartWith(const Platform::LinuxGigEOptions& options);
    /// On a thread of its own inside m_host, to which setUp has done something first: the driver's thread inherits it,
    /// the test's does not. @return what Start answered.
    std::uint32_t StartAfter(const std::function<void()>& setUp);
    void Stop();

    /// More addresses on m_host's loopback: 127.0.0.2 to 127.0.0.count.
    void AddLoopbackAddresses(int count);

    std::vector<std::shared_ptr<Platform::GigEDevice>> List();
    std::vector<GvcpDiscoveryRecord> ListRecords();
    /// What is listed, as "serial@ip".
    std::vector<std::string> ListNames();
    std::vector<std::string> DiscoverNames();

    // As the HAL's functions of these names do it.
    std::uint32_t Discover(std::vector<GvcpDiscoveryRecord>* records);
    std::uint32_t ForceIp(std::uint64_t mac, std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway);
    std::uint32_t AutoForceIp(std::optional<std::uint32_t> serialNumber);

    NetworkNamespace m_host;
    RecordingSink m_sink;
    std::chrono::milliseconds m_window{250};
    std::unique_ptr<Platform::GigEBus> m_bus;
};

/// A wire of a test's own from m_host's h0 (192.168.77.1/24) to m_wire's c0 (192.168.77.100/24), and simulated cameras
/// on it.
class GigEWireTest : public GigETest {
protected:
    GigEWireTest();
    ~GigEWireTest() override;

    /// Makes the driver itself instead of its bus, and lists. It tells more, and its timings may be chosen.
    void StartDriver(Platform::GigE::Timings timings);
    void StartDriver();
    /// Lists into m_listed.
    std::uint32_t ListOfDriver();

    /// Simulated cameras in m_wire. Their serial number is the last number of their MAC.
    Platform::Simulated::SimulatedGigENetwork::CameraId AddCamera(const std::string& ip, std::uint64_t mac);
    Platform::Simulated::SimulatedGigENetwork::CameraId AddCamera(
        const Platform::Simulated::SimulatedCameraOptions& options);

    /// Another computer on the wire, by its interface e0. The cameras' end is br0 from here on and has no address.
    void ConnectToo(NetworkNamespace& computer);

public:
    static Platform::Simulated::SimulatedCameraOptions CameraOptions(const std::string& ip, std::uint64_t mac);

protected:
    /// Waits until the driver lists exactly these, as "serial@ip".
    ::testing::AssertionResult WaitForNames(const std::vector<std::string>& names, std::chrono::milliseconds timeout);

    NetworkNamespace m_wire;
    std::unique_ptr<Platform::Simulated::SimulatedGigENetwork> m_cameras;
    std::shared_ptr<Platform::GigE::GigEDriver> m_driver;
    std::vector<Platform::GigE::ListedCamera> m_listed;
};

/// Gives up every capability of the calling thread and of those that it starts.
void DropCapabilities();

/// Cameras inside a namespace.
std::unique_ptr<Platform::Simulated::SimulatedGigENetwork> MakeCameras(NetworkNamespace& network);

std::string NameOf(const GvcpDiscoveryRecord& record);

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds Since(Clock::time_point start);

}  // namespace Nimbrel2::Testing

#endif
