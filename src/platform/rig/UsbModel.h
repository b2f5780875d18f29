// SPDX-License-Identifier: Apache-2.0
// One USB host controller in memory: both halves of its tree, addresses, speeds, link words and port status.
#ifndef NIMBREL2_PLATFORM_RIG_USBMODEL_H
#define NIMBREL2_PLATFORM_RIG_USBMODEL_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/rig/RigDescription.h"

namespace Nimbrel2::Platform {

/// A host controller. A hub that can do SuperSpeed is two devices, one in each half of the tree; any other device is
/// one, in the SuperSpeed half when it and everything above it can, else in the USB 2 half. A device gets a new address
/// each time it is plugged in, 1 to 255 and round again. What is attached to an unplugged hub is gone too.
/// @par Threads  None of its own, no lock: the rig that owns it guards it.
class UsbModel {
public:
    static std::vector<RigProblem> Validate(const UsbHostDescription& description, const std::string& pointer);

    /// @pre Validate found nothing.
    UsbModel(UsbHostDescription description, unsigned int host);

    std::uint64_t HostKey() const { return m_host + 1; }
    std::uint32_t Generation() const { return m_generation; }
    bool Has(const std::string& name) const;

    /// False: nothing changed.
    bool Plug(const std::string& name);
    bool Unplug(const std::string& name);
    /// Plugs the device in elsewhere. A problem: no such parent or port, the port is taken, or too many hubs in a row.
    std::optional<std::string> Move(const std::string& name, const std::string& parent, unsigned int port);
    /// Every device below gets a new address, as after a reset of the controller.
    void Reset();

    /// One device as the bus sees it now.
    struct Attached {
        const UsbDeviceDescription* device = nullptr;
        unsigned int speed = 0;          ///< Of the link, Mbit/s.
        std::uint32_t deviceId = 0;      ///< 1 and up, never 63.
        std::vector<unsigned int> path;  ///< Port numbers from the root port on.
        std::uint32_t parentId = 0;      ///< deviceId of the hub above, 63 on a root port.
    };
    /// Devices in tree order: each after the hub above it. Both halves of a hub are in it.
    const std::vector<Attached>& Devices() const { return m_attached; }
    /// The half in which the device is fastest; null when it is not attached.
    const Attached* Find(const std::string& name) const;
    std::vector<UsbSelfId> Records() const;

    static std::uint32_t LinkInfo(const Attached& device);
    static std::uint32_t PortStatus(const Attached& device);

private:
    std::size_t IndexOf(const std::string& name) const;
    void Rebuild();
    void AttachBelow(const std::string& parent, const std::vector<unsigned int>& path, bool superSpeed,
                     std::uint32_t parentId, unsigned int parentSpeed);
    void AttachPlacedCameras();
    std::uint32_t AddressOf(const std::string& name, bool superSpeed);
    void ForgetAddresses(const std::string& name);

    UsbHostDescription m_description;
    unsigned int m_host;
    std::uint32_t m_generation = 0;
    std::uint32_t m_nextAddress = 1;
    std::map<std::pair<std::string, bool>, std::uint32_t> m_addresses;  // By name and half, while attached.
    std::vector<Attached> m_attached;
};

}  // namespace Nimbrel2::Platform

#endif
