// SPDX-License-Identifier: Apache-2.0
// A device that answers GVCP as a test wants it to: anything, from any address and port. One thread of its own, on
// which the test's function runs, and those that the function starts; all of them end with the device. So a test
// declares the device after everything that its function refers to. Needs CAP_NET_RAW.
#ifndef NIMBREL2_TESTS_PLATFORM_GIGE_HOSTILEDEVICE_H
#define NIMBREL2_TESTS_PLATFORM_GIGE_HOSTILEDEVICE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "platform/gvcp/GvcpCodec.h"
#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Testing {

class HostileDevice {
public:
    using Bytes = std::vector<std::uint8_t>;

    struct Request {
        Platform::Gvcp::CommandHeader header;
        Bytes bytes;
        std::uint32_t from = 0;
        std::uint16_t fromPort = 0;
        std::uint32_t to = 0;  ///< as the datagram says: the device's address or 255.255.255.255

        bool Is(Platform::Gvcp::MessageId id) const { return header.id == id; }
        /// Of a READREG.
        std::uint32_t Address() const;
    };

    /// Listens on port 3956 of every address of the namespace.
    /// @param address  What Answer sends from; must be the namespace's.
    HostileDevice(NetworkNamespace& network, std::uint32_t address,
                  std::function<void(HostileDevice&, const Request&)> function);
    ~HostileDevice();
    HostileDevice(const HostileDevice&) = delete;
    HostileDevice& operator=(const HostileDevice&) = delete;

    /// Ends every thread of the device. What it has heard stays.
    void Stop();

    // For the function.
    /// Does something for longer, until IsStopping at the latest, on a thread of its own.
    void InBackground(std::function<void()> work);
    bool IsStopping() const { return m_stop; }
    /// Waits that long, or until the device stops.
    void Pause(std::chrono::milliseconds time);

    /// From the device's address, port 3956, to whoever asked.
    void Answer(const Request& request, std::span<const std::uint8_t> bytes);
    /// From any address and port; at most 1400 bytes.
    void AnswerFrom(const Request& request, std::uint32_t from, std::uint16_t fromPort,
                    std::span<const std::uint8_t> bytes);

    /// Every request so far.
    std::vector<Request> GetRequests() const;
    /// Waits for a request that satisfies the condition, seen before or not.
    bool WaitFor(const std::function<bool(const Request&)>& condition, std::chrono::milliseconds timeout);

    /// A record for DISCOVERY answers.
    static GvcpDiscoveryRecord Record(std::uint64_t mac, std::uint32_t ip);
    static Bytes DiscoveryAck(const Request& request, std::uint64_t mac, std::uint32_t ip);
    static Bytes ReadAck(const Request& request, std::uint32_t value);

private:
    void Serve();

    const std::uint32_t m_address;
    const std::function<void(HostileDevice&, const Request&)> m_function;
    int m_socket = -1;
    int m_raw = -1;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Request> m_requests;
    std::vector<std::thread> m_background;
    std::thread m_thread;
};

}  // namespace Nimbrel2::Testing

#endif
