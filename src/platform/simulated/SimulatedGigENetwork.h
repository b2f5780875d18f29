// SPDX-License-Identifier: Apache-2.0
// Simulated GigE cameras on UDP sockets of this computer, any number in one process, served by one thread.
// Any thread may call. Cameras belong to the serving thread: what callers want of them is handed over to it.
#ifndef NIMBREL2_PLATFORM_SIMULATED_SIMULATEDGIGENETWORK_H
#define NIMBREL2_PLATFORM_SIMULATED_SIMULATEDGIGENETWORK_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/simulated/SimulatedCameraOptions.h"
#include "platform/simulated/SimulatedGigECamera.h"

namespace Nimbrel2::Platform::Simulated {

/// Each camera listens at its own address, port 3956, and hears the limited broadcasts of its network interface.
/// Everything happens in the network namespace of the thread that made the object.
/// FORCEIP moves a camera at once. Where the new address is not on this computer it is added to the camera's interface;
/// addresses that were added are removed when their camera leaves them. Others are never touched.
class SimulatedGigENetwork {
public:
    using CameraId = unsigned int;

    struct Options {
        /// Cameras added in the same order to networks of one seed misbehave alike.
        std::uint64_t seed = 1;
        /// Told in one line when a camera could not take a forced address. Called on the serving thread.
        std::function<void(const std::string&)> report;
    };

    struct AddResult {
        CameraId id = 0;
        int error = 0;       ///< errno
        std::string reason;  ///< names the address or interface, and why
        explicit operator bool() const { return error == 0; }
    };

    SimulatedGigENetwork() : SimulatedGigENetwork(Options()) {}
    /// @throws std::system_error when the system gives no thread or file descriptor.
    explicit SimulatedGigENetwork(Options options);

    /// Answers that wait are dropped, added addresses removed.
    ~SimulatedGigENetwork();

    SimulatedGigENetwork(const SimulatedGigENetwork&) = delete;
    SimulatedGigENetwork& operator=(const SimulatedGigENetwork&) = delete;

    /// When it returns the camera answers.
    AddResult AddCamera(const SimulatedCameraOptions& options);

    /// @return false for an unknown camera.
    bool RemoveCamera(CameraId id);

    /// Runs the function with the camera, on the serving thread, and waits for it; no packet is handled meanwhile. An
    /// address that it changes is taken before this returns. What it throws comes out here. It must not call this
    /// object.
    /// @return false for an unknown camera; the function was not called.
    bool Use(CameraId id, const std::function<void(SimulatedGigECamera&)>& function);

    /// Waits until the condition holds for the camera. It is looked at after each packet and every few milliseconds.
    /// @return false when it did not in time, or the camera is unknown.
    bool WaitUntil(CameraId id, const std::function<bool(SimulatedGigECamera&)>& condition,
                   std::chrono::milliseconds timeout);

    /// Why the camera is not reachable at its address; empty when it is, or is unknown.
    std::string GetProblem(CameraId id);

private:
    class Server;
    std::unique_ptr<Server> m_server;
};

}  // namespace Nimbrel2::Platform::Simulated

#endif
