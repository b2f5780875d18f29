// SPDX-License-Identifier: Apache-2.0
// Simulated cameras on loopback for benchmarks, and the HAL over them.
#ifndef NIMBREL2_BENCH_GIGECAMERAS_H
#define NIMBREL2_BENCH_GIGECAMERAS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "platform/simulated/SimulatedGigENetwork.h"

namespace Nimbrel2::Platform {

constexpr std::uint32_t FirstAddress = 0x7F000002;
constexpr std::uint32_t CurrentIpAddress = 0x24;

/// @throws std::system_error with errno
[[noreturn]] void Give(const char* what);

/// A network namespace with loopback in it, for the whole process.
void EnterNetworkOfItsOwn();

class Cameras {
public:
    /// At FirstAddress and above.
    explicit Cameras(std::int64_t count);
    /// Ends the HAL too.
    ~Cameras();
    Cameras(const Cameras&) = delete;
    Cameras& operator=(const Cameras&) = delete;

    static void StartHal(std::chrono::milliseconds window);

    /// How many were listed; their entries are given back, but for the first one when it is wanted.
    static std::uint64_t List(void** first = nullptr);
    /// Their entries, for the caller to free.
    static std::vector<void*> ListEntries();
    /// What the bus master asks in a cycle. @return the MACs' low halves, in order.
    static std::vector<std::uint32_t> Enumerate();

    void SetSilent(std::size_t index, bool silent);
    /// Of all cameras.
    Simulated::CameraStatistics GetStatistics();

private:
    Simulated::SimulatedGigENetwork m_network;
    std::vector<Simulated::SimulatedGigENetwork::CameraId> m_ids;
};

/// Cameras that answer discoveries, and registers when they are told to. A thread of their own.
class MutableCameras {
public:
    /// At address and above.
    MutableCameras(std::uint32_t address, std::uint32_t count, bool mute);
    ~MutableCameras();
    MutableCameras(const MutableCameras&) = delete;
    MutableCameras& operator=(const MutableCameras&) = delete;

    void SetMute(bool mute) { m_mute = mute; }

private:
    void Serve();
    void Answer(std::size_t index, const std::vector<std::uint8_t>& command, std::uint32_t from, std::uint16_t port);

    const std::uint32_t m_address;
    std::vector<int> m_sockets;  ///< the last one hears broadcasts
    std::atomic<bool> m_mute;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace Nimbrel2::Platform

#endif
