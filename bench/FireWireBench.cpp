// SPDX-License-Identifier: Apache-2.0
// The IEEE 1394 driver on emulated buses, beside bare programs that do no more than they must: a scan of sysfs, an
// ioctl and a poll, a reader of one file. The library that redirects the calls of the C library is in front of both
// sides.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <linux/firewire-cdev.h>
#include <linux/firewire-constants.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/CountedCallbacks.h"
#include "busmaster/BusMaster.h"
#include "hal/HAL.h"
#include "platform/Platform.h"
#include "tests/support/EmulatedFireWire.h"
#include "tests/support/FireWireBuses.h"

namespace Nimbrel2 {
namespace {

using Clock = std::chrono::steady_clock;
using Testing::EmulatedFireWire;

constexpr std::chrono::milliseconds Quiet{10};
constexpr char Controller[] = "0000:06:01.0";
constexpr char BenchDevices[] = "/sys/bus/firewire/devices";
constexpr std::uint64_t IsoEnableRegister = 0xFFFFF0F00614;

void Require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void UseFireWireAlone() {
    Platform::Options options;
    options.usb = options.gigE = Platform::Driver::None;
    Require(static_cast<bool>(Platform::Configure(options)), "options");
}

/// A HAL that runs on FireWire alone.
class RunningHal {
public:
    RunningHal() {
        UseFireWireAlone();
        Require(HAL_InitLibrary() == HAL_OK, "the HAL");
    }
    ~RunningHal() { HAL_CleanupLibrary(); }
    RunningHal(const RunningHal&) = delete;
    RunningHal& operator=(const RunningHal&) = delete;
};

// ---- Listing -------------------------------------------------------------------------------------------------------

constexpr unsigned int NumCameras = 60;  // with the controller and two hubs a whole bus

// The mocking library lets a program have fifty files of devices open.
void AddWholeBus(EmulatedFireWire& computer) {
    computer.AddBus(Testing::FireWireBusOfCameras(NumCameras), Controller);
    for (unsigned int i = 40; i < NumCameras; ++i) {
        computer.Break("camera" + std::to_string(i));
    }
}

// Cameras with numbers and texts, entries given back.
std::uint64_t ListWithHal() {
    void* entries[64];
    std::uint64_t count = 64;
    Require(HAL_1394GetCameras(entries, &count) == HAL_OK, "a listing");
    for (std::uint64_t i = 0; i < count; ++i) {
        std::uint32_t numbers[5];
        char vendor[128], model[128];
        std::uint32_t vendorSize = sizeof vendor, modelSize = sizeof model;
        HAL_1394GetConfigInfo(entries[i], &numbers[0], &numbers[1], &numbers[2], &numbers[3], &numbers[4], vendor,
                              model, &vendorSize, &modelSize);
        benchmark::DoNotOptimize(numbers);
        HAL_1394FreeCamera(entries[i]);
    }
    return count;
}

std::size_t ReadAttribute(const std::string& path) {
    char buffer[4096];
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t size = fd >= 0 ? ::read(fd, buffer, sizeof buffer) : 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

// The place, the configuration ROM and the kind of each node, each by its path.
std::size_t ScanBare() {
    DIR* const folder = ::opendir(BenchDevices);
    std::size_t nodes = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this folder
    while (const dirent* entry = folder != nullptr ? ::readdir(folder) : nullptr) {
        const std::string name = entry->d_name;
        if (name[0] == '.' || name.find('.') != std::string::npos) {
            continue;
        }
        const std::string path = std::string(BenchDevices) + "/" + name;
        char link[PATH_MAX];
        benchmark::DoNotOptimize(::readlink(path.c_str(), link, sizeof link));
        if (ReadAttribute(path + "/config_rom") != 0 && ReadAttribute(path + "/is_local") != 0) {
            ++nodes;
        }
    }
    if (folder != nullptr) {
        ::closedir(folder);
    }
    return nodes;
}

void ListFireWireBusOf63(benchmark::State& state) {
    EmulatedFireWire computer;
    AddWholeBus(computer);
    const RunningHal hal;
    for (auto unused : state) {
        static_cast<void>(unused);
        Require(ListWithHal() == NumCameras, "cameras");
    }
}
BENCHMARK(ListFireWireBusOf63)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BareScanOfFireWireBusOf63(benchmark::State& state) {
    EmulatedFireWire computer;
    AddWholeBus(computer);
    for (auto unused : state) {
        static_cast<void>(unused);
        Require(ScanBare() == NumCameras + 1, "nodes");
    }
}
BENCHMARK(BareScanOfFireWireBusOf63)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ---- A register ----------------------------------------------------------------------------------------------------

void ReadFireWireRegister(benchmark::State& state) {
    EmulatedFireWire computer;
    computer.AddBus(Testing::StandardFireWireBus(), Controller);
    const RunningHal hal;
    void* entries[2];
    std::uint64_t count = 2;
    Require(HAL_1394GetCameras(entries, &count) == HAL_OK && count == 2, "cameras");
    for (auto unused : state) {
        static_cast<void>(unused);
        std::uint32_t value = 0;
        Require(HAL_1394ReadRegister(entries[0], IsoEnableRegister, 0xFFFFFFFF, &value) == HAL_OK, "a register");
    }
    for (void* entry : entries) {
        HAL_1394FreeCamera(entry);
    }
}
BENCHMARK(ReadFireWireRegister)->Unit(benchmark::kMicrosecond)->UseRealTime();

/// A node's file as the simplest program uses it.
class BareNode {
public:
    explicit BareNode(const std::string& name) : m_fd(::open(("/dev/" + name).c_str(), O_RDWR | O_CLOEXEC)) {
        Require(m_fd >= 0, "a node's file");
        GetInfo();
    }
    ~BareNode() { ::close(m_fd); }
    BareNode(const BareNode&) = delete;
    BareNode& operator=(const BareNode&) = delete;

    void GetInfo() {
        fw_cdev_event_bus_reset reset{};
        fw_cdev_get_info info{};
        info.version = 5;
        info.bus_reset = reinterpret_cast<std::uintptr_t>(&reset);
        Require(::ioctl(m_fd, FW_CDEV_IOC_GET_INFO, &info) == 0, "GET_INFO");
        m_generation = reset.generation;
    }
    bool Wait(int milliseconds) {
        pollfd poll{m_fd, POLLIN, 0};
        return ::poll(&poll, 1, milliseconds) > 0;
    }
    void ReadEvent() { Require(::read(m_fd, m_event.data(), m_event.size()) > 0, "an event"); }
    std::uint32_t ReadQuadlet(std::uint64_t offset) {
        fw_cdev_send_request request{};
        request.tcode = TCODE_READ_QUADLET_REQUEST;
        request.length = 4;
        request.offset = offset;
        request.generation = m_generation;
        Require(::ioctl(m_fd, FW_CDEV_IOC_SEND_REQUEST, &request) == 0, "SEND_REQUEST");
        Require(Wait(-1), "poll");
        ReadEvent();
        std::uint32_t value;
        std::memcpy(&value, m_event.data() + offsetof(fw_cdev_event_response, data), sizeof value);
        return be32toh(value);
    }

private:
    int m_fd;
    std::uint32_t m_generation = 0;
    std::array<char, 4096> m_event{};
};

void BareFireWireRegister(benchmark::State& state) {
    EmulatedFireWire computer;
    computer.AddBus(Testing::StandardFireWireBus(), Controller);
    BareNode node(computer.GetFileName("left"));
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(node.ReadQuadlet(IsoEnableRegister));
    }
}
BENCHMARK(BareFireWireRegister)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ---- A bus reset ---------------------------------------------------------------------------------------------------

void FireWireResetToCallback(benchmark::State& state) {
    EmulatedFireWire computer;
    computer.AddBus(Testing::StandardFireWireBus(), Controller);
    UseFireWireAlone();
    CountedCallbacks resets;
    BusMaster busMaster;
    Require(busMaster.Initialize() == ERROR_OK, "the bus master");
    void* handle = nullptr;
    busMaster.RegisterCallback(CountedCallbacks::OnEvent, BUS_RESET, &resets, &handle);
    for (auto unused : state) {
        static_cast<void>(unused);
        Require(busMaster.WaitUntilQuiet(20000), "quiet");
        const unsigned int before = resets.Count();
        const auto begin = Clock::now();
        computer.Reset("left");
        state.SetIterationTime(std::chrono::duration<double>(resets.WaitFor(before + 1) - begin).count());
    }
}
BENCHMARK(FireWireResetToCallback)->Unit(benchmark::kMicrosecond)->UseManualTime();

// Reads the controller's file until it has been quiet.
void BareFireWireResetToQuiet(benchmark::State& state) {
    EmulatedFireWire computer;
    computer.AddBus(Testing::StandardFireWireBus(), Controller);
    BareNode node(computer.GetFileName("card"));
    for (auto unused : state) {
        static_cast<void>(unused);
        const auto begin = Clock::now();
        computer.Reset("left");
        Require(node.Wait(-1), "poll");
        do {
            node.ReadEvent();
        } while (node.Wait(static_cast<int>(Quiet.count())));
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
}
BENCHMARK(BareFireWireResetToQuiet)->Unit(benchmark::kMicrosecond)->UseManualTime();

}  // namespace
}  // namespace Nimbrel2

BENCHMARK_MAIN();
