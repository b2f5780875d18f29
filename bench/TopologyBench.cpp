// SPDX-License-Identifier: Apache-2.0
// What topology trees cost, beside builders that do no more than make the nodes and move them into place, and how the
// whole tree grows with the cameras in it. ratios.py pairs them. One thread.
#include <benchmark/benchmark.h>

#include "bench/LeanBuses.h"
#include "bench/LeanHal.h"
#include "busmaster/BusMaster.h"
#include "topology/SelfIdParsing.h"
#include "topology/UsbTopology.h"

namespace Nimbrel2::Bench {
namespace {

// ---- A bus of 63 PHYs ----------------------------------------------------------------------------------------------

void ParseBusOf63Phys(benchmark::State& state) {
    const std::vector<SelfIdPacket_t> stream = FullFireWireBus().stream;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(ParseSelfIdPackets(stream));
    }
}
BENCHMARK(ParseBusOf63Phys);

// One pass that trusts the stream: each PHY takes its subtrees from the end of those that are waiting.
TopologyNode ParseInOnePass(const std::vector<SelfIdPacket_t>& stream) {
    std::vector<TopologyNode> waiting;
    waiting.reserve(stream.size());
    PortList ports;
    for (std::size_t i = 0; i < stream.size(); ++i) {
        std::uint32_t childCount = 0;
        ports.clear();
        TopologyNode phy(ZevoGuid{}, stream[i].bytes[0] & 0x3F, TopologyNode::NODE_DEVICE, INTERFACE_IEEE1394);
        ParseSelfIdPacketZero(stream[i], ports, childCount);
        while ((stream[i].bytes[3] & 1) != 0) {
            ParseSelfIdPacketMore(stream[++i], ports, childCount);
        }
        for (std::size_t child = waiting.size() - childCount; child < waiting.size(); ++child) {
            phy.AddChild(std::move(waiting[child]));
        }
        waiting.resize(waiting.size() - childCount);
        for (const TopologyNode::PortType port : ports) {
            phy.AddPortType(port);
        }
        waiting.push_back(std::move(phy));
    }
    return std::move(waiting.front());
}

void BareBusOf63Phys(benchmark::State& state) {
    const std::vector<SelfIdPacket_t> stream = FullFireWireBus().stream;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(ParseInOnePass(stream));
    }
}
BENCHMARK(BareBusOf63Phys);

// ---- A USB tree of 127 devices -------------------------------------------------------------------------------------

void BuildHostOf127Devices(benchmark::State& state) {
    const std::vector<UsbSelfId> records = FullUsbHost().records;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(BuildUsbHost(records));
    }
}
BENCHMARK(BuildHostOf127Devices);

// One pass that trusts the records to come depth first: whatever is open at or below a record's tier is done with.
TopologyNode BuildInOnePass(const std::vector<UsbSelfId>& records) {
    std::vector<TopologyNode> open;
    open.reserve(1 + UsbTierCount);
    open.emplace_back(ZevoGuid{}, UsbHostDeviceId, TopologyNode::NODE_DEVICE, INTERFACE_USB_3);
    open[0].AddPortType(TopologyNode::PORT_TO_PARENT);
    const auto closeDownTo = [&open](std::size_t depth) {
        while (open.size() > depth) {
            open.back().AddPortType(TopologyNode::PORT_TO_PARENT);
            TopologyNode& parent = open[open.size() - 2];
            parent.AddChild(std::move(open.back()));
            parent.AddPortType(TopologyNode::PORT_TO_CHILD);
            open.pop_back();
        }
    };
    for (const UsbSelfId& record : records) {
        closeDownTo(1 + UsbTierOfRoute(record.routeString));
        open.emplace_back(ZevoGuid{}, static_cast<int>(record.deviceId), TopologyNode::NODE_DEVICE, INTERFACE_USB_3);
    }
    closeDownTo(1);
    return std::move(open.front());
}

void BareHostOf127Devices(benchmark::State& state) {
    const std::vector<UsbSelfId> records = FullUsbHost().records;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(BuildInOnePass(records));
    }
}
BENCHMARK(BareHostOf127Devices);

// ---- Hostile records -----------------------------------------------------------------------------------------------

// As many records as a controller may report, all of one tier on one route: the bound on the tree is what they meet.
void BuildHostOfHostileRecords(benchmark::State& state) {
    std::vector<UsbSelfId> records(MaxUsbRecords, UsbSelfId{5, 0, 1, 0, 0});
    const std::uint64_t routes[] = {0x1, 0x11, 0x111, 0x1111};
    for (std::size_t i = 1; i < records.size(); ++i) {
        records[i].routeString = routes[i % 4];
    }
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(BuildUsbHost(records));
    }
}
BENCHMARK(BuildHostOfHostileRecords)->Unit(benchmark::kMillisecond);

// ---- The whole tree ------------------------------------------------------------------------------------------------

// Half of the cameras on IEEE 1394, a quarter on USB 3, a quarter on GigE; each bus and controller as full as it gets.
void GetTopology(benchmark::State& state) {
    const auto cameras = static_cast<unsigned int>(state.range(0));
    AttachCameras(cameras / 2, cameras / 4, cameras / 4);
    BusMaster busMaster;
    if (busMaster.Initialize() != ERROR_OK || !busMaster.GetInitialized()) {
        state.SkipWithError("the bus master did not start");
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        TopologyNode tree;
        if (busMaster.GetTopology(&tree) != ERROR_OK || tree.GetNumChildren() != 3) {
            state.SkipWithError("no tree of three buses");
            return;
        }
    }
    state.counters["us_per_camera"] =
        benchmark::Counter(cameras, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(GetTopology)->RangeMultiplier(2)->Range(8, 512)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace Nimbrel2::Bench

BENCHMARK_MAIN();
