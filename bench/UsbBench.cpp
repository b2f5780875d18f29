// SPDX-License-Identifier: Apache-2.0
// The USB driver on mocked devices, beside what libusb makes of the same tree and a bare reader of uevents. The program
// is linked with the library that redirects the calls of the C library, on both sides alike.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <libusb.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/CountedCallbacks.h"
#include "busmaster/BusMaster.h"
#include "hal/HAL.h"
#include "platform/Platform.h"
#include "platform/base/Uevents.h"
#include "tests/platform/usb/UsbTestbed.h"

namespace Nimbrel2 {
namespace {

using Testing::UsbTestbed;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds Quiet{10};
constexpr char BenchDevices[] = "/sys/bus/usb/devices/";

void Require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void UseUsbAlone() {
    Platform::Options options;
    options.fireWire = options.gigE = Platform::Driver::None;
    Require(static_cast<bool>(Platform::Configure(options)), "options");
}

// One bus with all the addresses that it has: the root hub, 14 hubs and 112 cameras.
void Add127Devices(UsbTestbed& bed) {
    bed.AddController(UsbTestbed::Pci, 0, 2, 15);
    unsigned int number = 2;
    for (unsigned int hub = 1; hub <= 14; ++hub) {
        const std::string name = "2-" + std::to_string(hub);
        bed.Add(Testing::Hub(name, number++, true, 8));
        for (unsigned int port = 1; port <= 8; ++port, ++number) {
            bed.Add(Testing::Camera(name + "." + std::to_string(port), number, std::to_string(number)));
        }
    }
}

std::string ReadAttribute(const std::string& device, const char* name) {
    const std::string path = BenchDevices + device + "/" + name;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[4096];
    const ssize_t size = fd >= 0 ? ::read(fd, buffer, sizeof buffer) : 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return std::string(buffer, static_cast<std::size_t>(size > 0 ? size : 0));
}

// ---- Listing -------------------------------------------------------------------------------------------------------

// Cameras with ids, speed and their three texts, entries given back.
std::uint64_t ListWithHal() {
    void* entries[128];
    std::uint64_t count = 128;
    if (HAL_UsbGetCameras(entries, &count) != HAL_OK) {
        return 0;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        std::uint32_t numbers[5];
        char vendor[128], model[128], serial[128];
        std::uint32_t vendorSize = sizeof vendor, modelSize = sizeof model, serialSize = sizeof serial;
        HAL_UsbGetConfigInfo(entries[i], &numbers[0], &numbers[1], &numbers[2], &numbers[3], &numbers[4], vendor, model,
                             &vendorSize, &modelSize);
        HAL_UsbGetSerialText(entries[i], serial, &serialSize);
        benchmark::DoNotOptimize(numbers);
        HAL_UsbFreeCamera(entries[i]);
    }
    return count;
}

// The same from libusb's list: ids and speed from libusb, the texts, which it would have to ask the devices for, from
// the kernel.
std::uint64_t ListWithLibusb(libusb_context* context) {
    libusb_device** list = nullptr;
    const ssize_t size = libusb_get_device_list(context, &list);
    std::uint64_t count = 0;
    for (ssize_t i = 0; i < size; ++i) {
        libusb_device_descriptor descriptor{};
        libusb_get_device_descriptor(list[i], &descriptor);
        if (descriptor.bDeviceClass != 0xEF) {
            continue;
        }
        ++count;
        std::uint8_t ports[7];
        const int depth = libusb_get_port_numbers(list[i], ports, sizeof ports);
        std::string name = std::to_string(libusb_get_bus_number(list[i]));
        for (int p = 0; p < depth; ++p) {
            name.append(1, p == 0 ? '-' : '.').append(std::to_string(ports[p]));
        }
        benchmark::DoNotOptimize(libusb_get_device_speed(list[i]));
        for (const char* text : {"manufacturer", "product", "serial"}) {
            benchmark::DoNotOptimize(ReadAttribute(name, text));
        }
    }
    if (list != nullptr) {
        libusb_free_device_list(list, 1);
    }
    return count;
}

void ListUsbTreeOf127(benchmark::State& state) {
    UsbTestbed bed;
    Add127Devices(bed);
    UseUsbAlone();
    Require(HAL_InitLibrary() == HAL_OK, "the HAL");
    for (auto unused : state) {
        static_cast<void>(unused);
        Require(ListWithHal() == 112, "cameras");
    }
    HAL_CleanupLibrary();
}
BENCHMARK(ListUsbTreeOf127)->Unit(benchmark::kMicrosecond);

void ListUsbTreeOf127WithLibusb(benchmark::State& state) {
    UsbTestbed bed;
    Add127Devices(bed);
    libusb_context* context = nullptr;
    Require(libusb_init(&context) == LIBUSB_SUCCESS, "libusb");
    for (auto unused : state) {
        static_cast<void>(unused);
        Require(ListWithLibusb(context) == 112, "cameras");
    }
    libusb_exit(context);
}
BENCHMARK(ListUsbTreeOf127WithLibusb)->Unit(benchmark::kMicrosecond);

void ListUsbTreeOf127First(benchmark::State& state) {
    UsbTestbed bed;
    Add127Devices(bed);
    UseUsbAlone();
    for (auto unused : state) {
        static_cast<void>(unused);
        Require(HAL_InitLibrary() == HAL_OK, "the HAL");
        Require(ListWithHal() == 112, "cameras");
        HAL_CleanupLibrary();
    }
}
BENCHMARK(ListUsbTreeOf127First)->Unit(benchmark::kMicrosecond);

void ListUsbTreeOf127FirstWithLibusb(benchmark::State& state) {
    UsbTestbed bed;
    Add127Devices(bed);
    for (auto unused : state) {
        static_cast<void>(unused);
        libusb_context* context = nullptr;
        Require(libusb_init(&context) == LIBUSB_SUCCESS, "libusb");
        Require(ListWithLibusb(context) == 112, "cameras");
        libusb_exit(context);
    }
}
BENCHMARK(ListUsbTreeOf127FirstWithLibusb)->Unit(benchmark::kMicrosecond);

// ---- A plug --------------------------------------------------------------------------------------------------------

// A controller with two hubs, eight cameras that stay, and one that is plugged in again and again: only its uevents
// are sent, its directory stays.
void AddPlugTree(UsbTestbed& bed) {
    bed.AddController(UsbTestbed::Pci, 1, 2, 8);
    bed.Add(Testing::Hub("1-1", 2, false));
    bed.Add(Testing::Hub("2-1", 2, true, 8));
    for (unsigned int port = 1; port <= 8; ++port) {
        const std::string name = "2-1." + std::to_string(port);
        bed.Add(Testing::Camera(name, 2 + port, std::to_string(1000 + port)));
    }
    bed.Add(Testing::Camera("2-2", 20, "4711"));
}

void UsbPlugToArrivalCallback(benchmark::State& state) {
    UsbTestbed bed;
    AddPlugTree(bed);
    UseUsbAlone();
    {
        BusMaster busMaster;
        Require(busMaster.Initialize() == ERROR_OK, "the bus master");
        CountedCallbacks arrivals, removals;
        void* handle = nullptr;
        busMaster.RegisterCallback(CountedCallbacks::OnEvent, ARRIVAL, &arrivals, &handle);
        busMaster.RegisterCallback(CountedCallbacks::OnEvent, REMOVAL, &removals, &handle);
        unsigned int plugs = 0;
        for (auto unused : state) {
            static_cast<void>(unused);
            bed.SendUevent("2-2", "remove");
            removals.WaitFor(++plugs);
            busMaster.RescanBus();  // until the cycles of the removal are over
            const auto begin = Clock::now();
            bed.SendUevent("2-2", "add");
            state.SetIterationTime(std::chrono::duration<double>(arrivals.WaitFor(plugs) - begin).count());
        }
    }
}
BENCHMARK(UsbPlugToArrivalCallback)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Names and attributes of every device, each by its path.
std::size_t ScanOnce() {
    DIR* const folder = ::opendir(BenchDevices);
    std::size_t bytes = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this folder
    while (const dirent* entry = folder != nullptr ? ::readdir(folder) : nullptr) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        for (const char* name : {"descriptors", "devnum", "speed", "bConfigurationValue", "authorized", "manufacturer",
                                 "product", "serial"}) {
            bytes += ReadAttribute(entry->d_name, name).size();
        }
    }
    if (folder != nullptr) {
        ::closedir(folder);
    }
    return bytes;
}

void BareUsbPlugToScan(benchmark::State& state) {
    UsbTestbed bed;
    AddPlugTree(bed);
    Platform::UeventSocket socket;
    Require(socket.Open() == 0, "the socket");
    Platform::Uevent event;
    for (auto unused : state) {
        static_cast<void>(unused);
        const auto begin = Clock::now();
        bed.SendUevent("2-2", "add");
        pollfd poll{socket.GetFd(), POLLIN, 0};
        int timeout = -1;
        while (::poll(&poll, 1, timeout) > 0) {
            while (socket.Receive(&event) == Platform::UeventSocket::Receipt::Event) {
            }
            timeout = static_cast<int>(Quiet.count());
        }
        benchmark::DoNotOptimize(ScanOnce());
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
}
BENCHMARK(BareUsbPlugToScan)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace Nimbrel2

BENCHMARK_MAIN();
