// SPDX-License-Identifier: Apache-2.0
// Looks for cameras that are there and whose answers to broadcasts are filtered. Any thread; the sockets are the test's
// own: a request that went directly to a camera from the socket of the broadcasts would make a firewall let that
// camera's answers in. No lock but the parts'.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_HEARING_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_HEARING_H

#include <map>
#include <memory>
#include <vector>

#include "platform/linux/gige/DriverParts.h"
#include "platform/linux/gige/PacketListener.h"

namespace Nimbrel2::Platform::GigE {

class Hearing {
public:
    explicit Hearing(DriverParts& parts) : m_parts(parts) {}

    /// As FindMutedGigECameras (Diagnostics.h).
    std::uint32_t FindMutedCameras(GigEHearing* hearing);

private:
    using Records = std::map<CameraKey, GvcpDiscoveryRecord>;

    /// What listens on one interface, and what it has heard.
    struct InterfaceProbe {
        NetworkInterface info;
        InterfaceHearing hearing;
        std::shared_ptr<UdpSocket> broadcasts;
        std::shared_ptr<UdpSocket> requests;
        std::unique_ptr<PacketListener> wire;
        std::vector<std::uint32_t> neighbours;
        Records heard;     ///< by the socket of the broadcasts
        Records arrived;   ///< on the wire
        Records answered;  ///< by the socket of the single requests

        bool IsOpen() const { return broadcasts && requests; }
        void Drain();
    };

    std::vector<InterfaceProbe> Open();
    bool ListenUntil(std::vector<InterfaceProbe>& probes, TimePoint deadline) const;
    bool AskEverybody(std::vector<InterfaceProbe>& probes) const;
    bool AskNeighbours(std::vector<InterfaceProbe>& probes);
    void Conclude(const InterfaceProbe& probe, GigEHearing* hearing);

    DriverParts& m_parts;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
