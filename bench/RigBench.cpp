// SPDX-License-Identifier: Apache-2.0
// A simulated computer of 512 cameras: what it takes to start the bus master on it, beside what it takes the HAL alone
// to list and describe the same, and what their tree costs.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "busmaster/BusMaster.h"
#include "hal/HAL.h"
#include "platform/Platform.h"
#include "platform/rig/RigDrivers.h"
#include "tests/support/LargeRig.h"

namespace Nimbrel2::Bench {
namespace {

constexpr unsigned int NumCameras = 512;

bool UseRig(benchmark::State& state) {
    Platform::Options options;
    options.fireWire = options.usb = options.gigE = Platform::Driver::Rig;
    options.makeDrivers = Platform::MakeRigDrivers(std::make_shared<Platform::Rig>(Testing::RigOf512Cameras()));
    const Platform::ConfigureResult result = Platform::Configure(options);
    if (!result) {
        state.SkipWithError(result.reason.c_str());
    }
    return static_cast<bool>(result);
}

std::unique_ptr<BusMaster> Start(benchmark::State& state) {
    auto busMaster = std::make_unique<BusMaster>();
    unsigned int count = 0;
    if (busMaster->Initialize() != ERROR_OK || busMaster->GetNumOfCameras(&count) != ERROR_OK || count != NumCameras) {
        state.SkipWithError("the bus master does not list the cameras");
    }
    return busMaster;
}

void StartRigOf512Cameras(benchmark::State& state) {
    for (auto _ : state) {
        if (!UseRig(state)) {
            return;
        }
        std::unique_ptr<BusMaster> busMaster = Start(state);
        state.PauseTiming();
        busMaster.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(StartRigOf512Cameras)->Unit(benchmark::kMillisecond);

// What a start asks of the HAL, and nothing else.
class BareListing {
public:
    void List() {
        std::array<std::uint32_t, 5> word{};
        std::array<char, 512> vendor{};
        std::array<char, 512> model{};
        std::uint32_t vendorSize = 0;
        std::uint32_t modelSize = 0;
        const auto describe = [&](auto getConfigInfo, void* entry) {
            vendorSize = vendor.size();
            modelSize = model.size();
            m_good = m_good && getConfigInfo(entry, &word[0], &word[1], &word[2], &word[3], &word[4], vendor.data(),
                                             model.data(), &vendorSize, &modelSize) == HAL_OK;
        };
        for (void* entry : List(HAL_1394GetCameras)) {
            describe(HAL_1394GetConfigInfo, entry);
        }
        for (void* entry : List(HAL_UsbGetCameras)) {
            describe(HAL_UsbGetConfigInfo, entry);
        }
        for (void* entry : List(HAL_GigEGetCameras)) {
            describe(HAL_GigEGetConfigInfo, entry);
        }
    }
    bool IsComplete() const { return m_good && m_count == NumCameras; }

private:
    std::vector<void*> List(std::uint32_t (*list)(void**, std::uint64_t*)) {
        std::vector<void*> entries(256);
        std::uint64_t count = entries.size();
        m_good = m_good && list(entries.data(), &count) == HAL_OK;
        entries.resize(count);
        m_count += count;
        return entries;
    }

    bool m_good = true;
    std::uint64_t m_count = 0;
};

void BareStartOf512Cameras(benchmark::State& state) {
    for (auto _ : state) {
        if (!UseRig(state)) {
            return;
        }
        BareListing listing;
        HAL_InitLibrary();
        listing.List();
        state.PauseTiming();
        HAL_CleanupLibrary();
        if (!listing.IsComplete()) {
            state.SkipWithError("the HAL does not list the cameras");
        }
        state.ResumeTiming();
    }
}
BENCHMARK(BareStartOf512Cameras)->Unit(benchmark::kMillisecond);

void GetTopologyOfRigOf512Cameras(benchmark::State& state) {
    if (!UseRig(state)) {
        return;
    }
    const std::unique_ptr<BusMaster> busMaster = Start(state);
    for (auto _ : state) {
        TopologyNode tree;
        if (busMaster->GetTopology(&tree) != ERROR_OK || tree.GetNumChildren() != 3) {
            state.SkipWithError("no tree of three buses");
            return;
        }
    }
}
BENCHMARK(GetTopologyOfRigOf512Cameras)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Nimbrel2::Bench

BENCHMARK_MAIN();
