// SPDX-License-Identifier: Apache-2.0
// The computer's network interfaces in memory, with the GigE cameras on them.
#ifndef NIMBREL2_PLATFORM_RIG_GIGEMODEL_H
#define NIMBREL2_PLATFORM_RIG_GIGEMODEL_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/Diagnostics.h"
#include "platform/base/Random.h"
#include "platform/rig/RigDescription.h"
#include "platform/simulated/BootstrapRegisters.h"

namespace Nimbrel2::Platform {

/// All network interfaces of a rig. A camera is heard on the interface that it is on, and can be used as
/// GigEUsability says; of two cameras on one address the one with the lower MAC can.
/// @par Threads  None of its own, no lock: the rig that owns it guards it.
class GigEModel {
public:
    static std::vector<RigProblem> Validate(const std::vector<NetworkInterfaceDescription>& interfaces,
                                            const std::string& pointer);

    /// @pre Validate found nothing.
    explicit GigEModel(std::vector<NetworkInterfaceDescription> interfaces);

    struct Camera {
        std::string name;
        std::size_t interface = 0;
        bool plugged = true;
        Simulated::Faults faults;
        std::unique_ptr<Simulated::BootstrapRegisters> registers;
    };

    bool Has(const std::string& name) const;
    bool HasInterface(const std::string& name) const;

    // ---- What happens to it. False: nothing changed. ----------------------------------------------------------------
    bool Plug(const std::string& name);
    bool Unplug(const std::string& name);
    /// @pre Has(name). A problem: there is no such interface.
    std::optional<std::string> Move(const std::string& name, const std::string& interfaceName);
    bool SetLink(const std::string& interfaceName, bool up);
    void SetAddress(const std::string& name, std::uint32_t address, std::uint32_t mask, std::uint32_t gateway);
    void Hold(const std::string& name, const Simulated::ControlOwner& owner);
    void Release(const std::string& name);
    void SetFaults(const std::string& name, const Simulated::Faults& faults);

    // ---- What the computer sees -------------------------------------------------------------------------------------
    /// Cameras that answer a broadcast on an interface that is up, in the order of MAC and address.
    std::vector<const Camera*> Heard() const;
    /// Those of them that can be used.
    std::vector<const Camera*> Reached() const;
    GigEUsability UsabilityOf(const Camera& camera) const;
    /// Null when no camera that is heard has that MAC.
    Camera* FindHeard(std::uint64_t mac);
    const NetworkInterfaceDescription& InterfaceOf(const Camera& camera) const {
        return m_interfaces[camera.interface];
    }
    /// Whether its address can be talked to from this computer, and answered.
    bool CanBeTalkedTo(const Camera& camera) const;
    bool HasInterfaceUp() const;
    /// Of those that are up, in the order of the description.
    std::vector<std::string> InterfacesUp() const;

    /// FORCEIP by broadcast on every interface: HAL_NO_ACKNOWLEDGE when no camera with that MAC hears it, or when it is
    /// held.
    std::uint32_t ForceAddress(const GigEAddress& address, ForceIpResult* result);
    AddressHolder FindAddressHolder(std::uint32_t ip) const;
    /// What giving every camera that is heard, wanted and kept from being used by its address a free one would do, in
    /// the order of Heard.
    std::vector<AddressPlan> PlanAddresses(const std::function<bool(const GvcpDiscoveryRecord&)>& wanted) const;

    /// One camera that is heard, without what only it can say.
    CameraDiagnosis DescribeCamera(const Camera& camera) const;
    /// Interfaces and the cameras that are heard on them. @param self  The port that this computer asks from.
    GigEDiagnosis Diagnose(bool askControl, std::uint16_t self, Simulated::TimePoint now);

    /// What becomes of one command to a camera.
    struct Exchange {
        std::chrono::milliseconds time{0};  ///< until the answer, or until it is waited for no longer
        bool arrived = false;               ///< the camera heard it
        bool answered = false;
    };
    /// Sends one, three times if need be, and draws what is lost. The draws of a rig are the same each time it plays.
    Exchange Send(const Camera& camera);

private:
    Camera* Find(const std::string& name);
    /// Whether it ever answers.
    static bool Answers(const Camera& camera);
    NetworkInterface InterfaceAt(std::size_t interface) const;
    static ControlInfo ControlOf(Camera& camera, const Simulated::Endpoint& self, Simulated::TimePoint now);

    std::vector<NetworkInterfaceDescription> m_interfaces;
    std::vector<Camera> m_cameras;
    Random m_random{1};
};

}  // namespace Nimbrel2::Platform

#endif
