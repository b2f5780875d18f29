// SPDX-License-Identifier: Apache-2.0
// What the driver consists of. Any thread; the parts have the locks.
#include "platform/linux/gige/DriverParts.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "platform/base/CameraAddress.h"
#include "platform/gvcp/GvcpConstants.h"

namespace Nimbrel2::Platform::GigE {

namespace {

// Room for thousands of answers to one broadcast; the kernel gives what it allows.
constexpr int ReceiveBufferBytes = 4 << 20;
constexpr int SendBufferBytes = 1 << 20;
// What does not exist waits here for ARP: some hundred packets, so that nothing of the kernel's is used up.
constexpr int SearchSendBufferBytes = 128 << 10;

// An address of those set apart for documentation: what leads there leads anywhere.
constexpr std::uint32_t NowhereNear = 0xC6336401;  // 198.51.100.1

constexpr int Strict = 1;

SocketOptions OptionsOf(Port port) {
    SocketOptions options;
    options.receiveBuffer = ReceiveBufferBytes;
    options.sendBuffer = port == Port::Search ? SearchSendBufferBytes : SendBufferBytes;
    return options;
}

}  // namespace

DriverParts::DriverParts(const DriverOptions& given, BusEventSink& events)
    : options(given),
      ids(Random::FromSystem()),
      presence(options.timings, ids, options.searchFor, events),
      interfaces(
          options.networkInterfaces, options.timings,
          [this](const NetworkInterface& interface, Port port, std::shared_ptr<UdpSocket>* socket, std::string* where) {
              return OpenSocket(interface, OptionsOf(port), socket, where);
          },
          [this](int interface, std::uint32_t ip) { return routes.HasDirectRoute(interface, ip); }),
      monitor(options.timings, ids, interfaces, presence, routes, options.searchFor),
      registers(options.timings,
                RegisterNeeds{
                    [this](const CameraKey& key) { return presence.FindPlace(key); },
                    [this](std::vector<ChannelRequest>& requests) {
                        for (ChannelRequest& request : requests) {
                            request.error = ENODEV;
                        }
                        monitor.Run([&] {
                            for (ChannelRequest& request : requests) {
                                const auto interface = interfaces.FindUsed(request.place.interface);
                                if (!interface) {
                                    continue;
                                }
                                SocketOptions socketOptions;
                                socketOptions.preferredPort = request.preferredPort;
                                socketOptions.localAddress = LocalAddressFor(interface->info, request.place.ip);
                                socketOptions.peer = request.place.ip;
                                std::string where;
                                request.error = OpenSocket(interface->info, socketOptions, &request.socket, &where);
                            }
                        });
                    },
                    [this](const std::vector<CameraKey>& keys) {
                        std::vector<Probe> probes;
                        presence.ProbeCameras(keys, Clock::now(), &probes);
                        monitor.SendProbes(probes);
                        monitor.Wake();
                    },
                    [this](const CameraKey& key, TimePoint since) { return presence.HasAnswered(key, since); },
                }) {}

int DriverParts::OpenSocket(const NetworkInterface& interface, SocketOptions socketOptions,
                            std::shared_ptr<UdpSocket>* socket, std::string* where) const {
    socketOptions.ports = options.sourcePorts;
    return UdpSocket::Open(interface, socketOptions, socket, where);
}

std::uint32_t DriverParts::GetStatus() const {
    return presence.IsRunning() ? interfaces.GetStatus() : std::uint32_t{HAL_CLOSED};
}

void DriverParts::FillReport(std::uint64_t filteredBefore, GigESearchReport* report) {
    interfaces.AddProblems(report);
    for (const auto& [interface, cameras] : registers.GetShortOfPorts()) {
        const PortRange range = options.sourcePorts.value_or(PortRange{});
        report->problems.push_back(
            {interface, interfaces.GetName(interface), GigESearchProblem::Kind::SourcePorts, EADDRINUSE,
             "the source ports " + std::to_string(range.first) + "-" + std::to_string(range.last) +
                 " are too few: " + std::to_string(cameras) + " more are needed",
             true});
    }
    report->filteredPackets = filtered.Read() - filteredBefore;
    const int defaultRoute = routes.FindRoute(NowhereNear);
    const std::vector<SightingView> sightings = presence.GetSightings();
    for (const UsedInterface& interface : interfaces.GetUsed()) {
        int ofAll = 0;
        int ofIt = 0;
        routes.ReadRpFilter(interface.info.index, &ofAll, &ofIt);
        const int inForce = std::max(ofAll, ofIt);
        // A strict filter lets a foreign answer pass only where this computer would answer it by the same interface, a
        // loose one where it knows any way.
        const bool passes = defaultRoute == interface.info.index || (inForce != Strict && defaultRoute != 0);
        if (inForce == 0 || passes || interface.info.loopback) {
            continue;
        }
        const auto heard = std::count_if(sightings.begin(), sightings.end(), [&](const SightingView& view) {
            return view.interface == interface.info.index;
        });
        report->filtered.push_back(
            {interface.info.index, interface.info.name, inForce, static_cast<unsigned int>(heard)});
    }
}

void Listener::OnDatagram(UdpSocket& /*socket*/, std::uint32_t from, std::uint16_t fromPort,
                          std::span<const std::uint8_t> bytes) {
    if (fromPort == Gvcp::Port) {
        m_function(from, bytes);
    }
}

bool WaitForAny(const std::vector<int>& fds, int stopFd, TimePoint deadline, std::vector<bool>* readable) {
    std::vector<pollfd> polled;
    polled.reserve(fds.size() + 1);
    for (const int fd : fds) {
        polled.push_back(pollfd{fd, POLLIN, 0});
    }
    polled.push_back(pollfd{stopFd, POLLIN, 0});
    readable->assign(fds.size(), false);
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        timespec limit{};
        limit.tv_sec = static_cast<std::time_t>(left / 1'000'000'000);
        limit.tv_nsec = static_cast<long>(left % 1'000'000'000);
        if (::ppoll(polled.data(), polled.size(), &limit, nullptr) <= 0) {
            continue;
        }
        if (polled.back().revents != 0) {
            return false;
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            (*readable)[i] = polled[i].revents != 0;
        }
        return true;
    }
}

}  // namespace Nimbrel2::Platform::GigE
