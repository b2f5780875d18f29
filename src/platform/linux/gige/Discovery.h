// SPDX-License-Identifier: Apache-2.0
// Discoveries that somebody asks for: every camera that answers a broadcast within one window, wherever its address is.
// Any thread, several at a time; each has sockets of its own, which it alone reads. No lock but the parts'.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_DISCOVERY_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_DISCOVERY_H

#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/linux/gige/DriverParts.h"
#include "platform/linux/gige/PacketListener.h"

namespace Nimbrel2::Platform::GigE {

/// Whether a camera can be used, and what else is known of it on the interface that has heard it.
CameraDiagnosis DescribeSighting(const SightingView& view, const Registers& registers);

class Discovery {
public:
    explicit Discovery(DriverParts& parts) : m_parts(parts) {}

    /// As DiscoverGigE (Diagnostics.h).
    std::uint32_t Run(const std::optional<GigECameraName>& until, GigEDiscovery* discovery);

private:
    /// The last answer of a camera on one interface.
    struct Heard {
        GvcpDiscoveryRecord record{};
        std::uint32_t from = 0;
        TimePoint at;
    };
    using Collected = std::map<std::pair<CameraKey, int>, Heard>;

    /// What listens on one interface.
    struct Ear {
        UsedInterface interface;
        std::shared_ptr<UdpSocket> socket;
        std::unique_ptr<PacketListener> packets;  ///< hears what is dropped on the way to a socket
        bool isFiltered = false;                  ///< the reverse path filter is on
        int error = 0;                            ///< errno: of the socket, else of the last broadcast
        bool hasSocket = false;
    };

    std::vector<Ear> Open();
    void Listen(std::vector<Ear>& ears, const std::optional<GigECameraName>& until, Collected* heard);
    void Ask(Ear& ear, std::uint16_t id, const std::optional<GigECameraName>& until);
    bool ListenUntil(std::vector<Ear>& ears, std::uint16_t id, TimePoint deadline,
                     const std::optional<GigECameraName>& until, Collected* heard);
    void Drain(Ear& ear, std::uint16_t id, Collected* heard) const;
    void Collect(int interface, std::uint16_t id, std::uint32_t from, std::span<const std::uint8_t> bytes,
                 Collected* heard) const;
    std::vector<SightingView> Judge(const Collected& heard);

    DriverParts& m_parts;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
